/* A program outside the project that finds the installed library the way a
 * user's build would, through find_package(QBVISA) or pkg-config. */
#include <qbvisa.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  char version[8] = {0};
  QBVISA_GetLibVersion(version);
  puts(version);
  return strcmp(version, "1.1.77") != 0;
}
