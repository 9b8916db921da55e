/* Both headers must build as plain C and the library must link from C. */
#include <stdio.h>
#include <string.h>

#include "qbvisa.h"
#include "qbvisa_lowlevel.h"

static int failures = 0;
#define CHECK(c) ((c) ? (void)0 : (void)(fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #c), ++failures))

int main(void) {
  char version[8] = {0}, text[300];
  static const uint8_t bytes[] = {1, 2, 3, 250};
  ChassisRecord *record = NULL;

  CHECK(sizeof(QBVISA_ResourceEntry) == 66); /* the list entry layout: 64 + 2 bytes */
  QBVISA_GetLibVersion(version);
  CHECK(strcmp(version, "1.1.77") == 0);
  CHECK(QBVISA_ErrorCodeToMessage(QBVISA_ERR_HANDLE, text, sizeof text - 1) == QBVISA_SUCCESS);
  CHECK(strcmp(text, "Handle Error, Not Found This Handle or ResourceName") == 0);
  CHECK(QBVISA_ErrorCodeToMessage(0, text, sizeof text - 1) == QBVISA_ERR_ERRORCODE);
  CHECK(FindChassis(0, &record) == QBVISA_ERR_HANDLE && record == NULL);
  CHECK(FindIdleChassis() == 0 && first_findrsc == 1);
  CHECK(validIPAddress("192.168.1.7") && !validIPAddress("192.168.1.200"));
  CHECK(checkSum(bytes, 4) == 256u);
  CHECK(toInt("192.168.1.7") == 0xC0A80107u);
  return failures != 0;
}
