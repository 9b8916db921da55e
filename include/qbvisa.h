/*
 * qbvisa.h - C interface of libQBVISA.so.1, the driver library for QB relay
 * switch-matrix chassis (RK420, RK420B, RK421, RK422, RK423, RK423B) and the
 * matrix cards in their slots, reached over VISA.
 *
 * Rules of this interface (they hold for every declaration below):
 *  - Plain C: fixed-width integers, char buffers and plain structs only, so C
 *    programs and Python ctypes can use it directly. No C++ exception ever
 *    leaves the library.
 *  - Every QBVISA_ call returns a signed 32-bit status: 0 (or a count) on
 *    success, a negative QBVISA_ERR_* code (-10000 .. -10053) or a negative
 *    VISA status on failure. QBVISA_ErrorCodeToMessage() gives the text.
 *  - A chassis is named by the VISA session number that QBVISA_Connect()
 *    hands out. Sessions stay open for the life of the process.
 *  - The caller owns every buffer it passes in. The library keeps no heap
 *    memory across calls and never logs; it reads no file (except the update
 *    file given to QBVISA_OnlineUpdate) and no environment variable.
 *  - Threads: calls on different chassis may run concurrently. Discovery
 *    (QBVISA_FindRsrc, QBVISA_Connect) must not run while other calls are
 *    under way. QBVISA_Init rewrites the process-wide location tables (with
 *    the values they already hold), so initialise every chassis before other
 *    threads start switching.
 *
 * Lower-level pieces (chassis registry, frame exchange, location tables,
 * text-command parser) are declared in qbvisa_lowlevel.h.
 */
#ifndef QBVISA_H
#define QBVISA_H

#include <stdbool.h>
#include <stdint.h>

#if defined(QBVISA_BUILDING_LIBRARY)
#define QBVISA_EXPORT __attribute__((visibility("default")))
#else
#define QBVISA_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Error codes. QBVISA_ErrorCodeToMessage() returns the fixed English text.  */
/* ------------------------------------------------------------------------ */
enum {
  QBVISA_SUCCESS = 0,
  QBVISA_ERR_LOAD_WINSOCK = -10000,
  QBVISA_ERR_INVALID_VISA_IO = -10001,
  QBVISA_ERR_BIND_PORT = -10002,
  QBVISA_ERR_SET_TIMEOUT = -10003,
  QBVISA_ERR_SEND = -10004,            /* write to the chassis failed */
  QBVISA_ERR_RECEIVE = -10005,         /* read from the chassis failed */
  QBVISA_ERR_CLOSE = -10006,
  QBVISA_ERR_ROW_RANGE = -10007,
  QBVISA_ERR_COLUMN_RANGE = -10008,
  QBVISA_ERR_STATE_RANGE = -10009,
  QBVISA_ERR_IP_CONFLICT = -10010,
  QBVISA_ERR_ARRAY_SIZE = -10011,
  QBVISA_ERR_ERRORCODE = -10012,       /* not an error code */
  QBVISA_ERR_PHYSICS_LOCATION = -10013,
  QBVISA_ERR_CARD_IN_PLACE = -10014,   /* a board/card is missing */
  QBVISA_ERR_UPDATE_FILE = -10015,     /* update file cannot be opened */
  QBVISA_ERR_NO_TYPE0_CARD = -10016,   /* nothing fitted in slot 0 */
  QBVISA_ERR_NEWER_DRIVER = -10017,
  QBVISA_ERR_SPI_LOOP = -10018,        /* SPI loop-back test failed */
  QBVISA_ERR_UPDATE_CHECK = -10019,    /* chassis rejected the update */
  QBVISA_ERR_NOT_SUPPORTED = -10020,   /* model or firmware lacks the call */
  QBVISA_ERR_POINT_DEFINITION = -10021,
  QBVISA_ERR_RF_DEVICE_TYPE = -10022,  /* unknown card type in slot 1 */
  QBVISA_ERR_HANDLE = -10023,          /* no chassis with that session */
  QBVISA_ERR_NO_TYPE1_CARD = -10024,
  QBVISA_ERR_NO_TYPE2_CARD = -10025,
  QBVISA_ERR_UNKNOWN_CARD_TYPE = -10026,
  QBVISA_ERR_DEVICE_TYPE2 = -10027,
  QBVISA_ERR_SN_INPUT = -10028,
  QBVISA_ERR_SN_UNSET = -10029,
  QBVISA_ERR_CLOSURE_LIMIT = -10030,
  QBVISA_ERR_BAD_IP = -10031,
  QBVISA_ERR_BAD_HW_NUMBER = -10032,
  QBVISA_ERR_BAD_SLOT = -10033,
  QBVISA_ERR_CHASSIS_NUM = -10034,
  QBVISA_ERR_MALLOC = -10035,
  QBVISA_ERR_PARALLEL_TIMEOUT = -10036,
  QBVISA_ERR_BAD_PORT = -10037,
  QBVISA_ERR_PARAMETER = -10038,
  QBVISA_ERR_BAD_MODEL = -10039,
  QBVISA_ERR_CONTROL_MODE_CONFLICT = -10040, /* RK421 under local control */
  QBVISA_ERR_SAME_CONTROL_MODE = -10041,
  QBVISA_ERR_BAD_SUBUNIT = -10042,
  QBVISA_ERR_INVALID_MODE = -10043,
  QBVISA_ERR_FILE_MAPPING = -10044,
  QBVISA_ERR_SHM_NOT_MAPPED = -10045,
  QBVISA_ERR_SHM_CAPACITY = -10046,
  QBVISA_ERR_INVALID_PORT = -10047,
  QBVISA_ERR_RESOURCE_NOT_PRESENT = -10048,
  QBVISA_ERR_DEVICE_FAILURE = -10049,  /* chassis answered FF FF FF FF */
  QBVISA_ERR_GPIB_ADDRESS = -10050,
  QBVISA_ERR_BAUDRATE = -10051,
  QBVISA_ERR_LAN_MODE = -10052,
  QBVISA_ERR_VISA_API = -10053
};

/* Hardware type codes reported by discovery. */
enum {
  QBVISA_TYPE_RK420 = 1050,
  QBVISA_TYPE_RK420B = 1051,
  QBVISA_TYPE_RK421 = 1066,
  QBVISA_TYPE_RK422 = 1082,
  QBVISA_TYPE_RK423 = 1098,
  QBVISA_TYPE_RK423B = 1099
};

/* ------------------------------------------------------------------------ */
/* Point-location types (see qbvisa_lowlevel.h for the tables and GetPoint). */
/* ------------------------------------------------------------------------ */

/* One entry of a location table: the relay's 16-byte group in the card's
 * relay-state block and the relay's byte within it. */
typedef struct PointLocation {
  int32_t group;
  int32_t position;
  int32_t auxiliary;
} PointLocation;

/* What GetPoint() hands back: byte address group * 16 + position. */
typedef struct RelayPosition {
  int32_t group;
  int32_t position;
} RelayPosition;

/* Which relay of a point GetPoint() is asked for. */
typedef int32_t LocationSelector;
enum {
  MATRIX = 0,
  MATRIX_A = 1,
  MATRIX_B = 2,
  MATRIX_C = 3,
  MATRIX_D = 4,
  ISO_X = 5,
  ISO_Y = 6,
  ISO_CV = 7,
  ISO_X_A = 8,
  ISO_Y_A = 9,
  ISO_X_B = 10,
  ISO_Y_B = 11,
  ISO_X_C = 12,
  ISO_Y_C = 13,
  ISO_X_D = 14,
  ISO_Y_D = 15,
  IN_A = 16,
  IN_B = 17,
  IN_C = 18,
  IN_D = 19,
  CASCADE_A = 20,
  CASCADE_B = 21,
  CASCADE_C = 22,
  CASCADE_D = 23,
  ISO_LT = 24
};

/* Location-table family of a slot: 0 RK420/RK420B, 1 RK421, 2 RK422,
 * 3 RK423/RK423B, 4 GX3, 5/6 GX4, 7 GX4C, 8/9 GX4CNew, 10 GX4Mix,
 * 11 AP (RK420 slot 2), 12 AP_420B (RK420B slot 2). */
typedef uint32_t MatrixKind;
enum {
  MATRIX_KIND_RK420 = 0,
  MATRIX_KIND_RK421 = 1,
  MATRIX_KIND_RK422 = 2,
  MATRIX_KIND_RK423 = 3,
  MATRIX_KIND_GX3 = 4,
  MATRIX_KIND_GX4_TYPE3 = 5,
  MATRIX_KIND_GX4_TYPE0 = 6,
  MATRIX_KIND_GX4C = 7,
  MATRIX_KIND_GX4CNEW_TYPE11 = 8,
  MATRIX_KIND_GX4CNEW_TYPE9 = 9,
  MATRIX_KIND_GX4MIX = 10,
  MATRIX_KIND_AP = 11,
  MATRIX_KIND_AP_420B = 12
};

/* One entry of the list that QBVISA_FindRsrc() fills: 66 bytes, packed.
 * The resource name is a bounded 64-byte copy: a 64-character name has no
 * terminating NUL. */
typedef struct QBVISA_ResourceEntry {
  char resourceName[64];
  uint16_t typeCode;
} QBVISA_ResourceEntry;

/* ------------------------------------------------------------------------ */
/* Errors and library version                                               */
/* ------------------------------------------------------------------------ */

/* Copies the message of `code` into `text`. Returns 0, or -10012 when `code`
 * is not an error code (code > -10000; `text` untouched). Codes below -10054
 * give the text of -10053. When `length` is not larger than the message, the
 * library's own copy of that message is cut to `length` characters for the
 * rest of the process and the cut text is returned (kept as the devices'
 * tools have always behaved). `text` must hold length + 1 bytes. */
QBVISA_EXPORT int32_t QBVISA_ErrorCodeToMessage(int64_t code, char *text,
                                                uint64_t length);
/* Writes "1.1.77" and its NUL (7 bytes). A null buffer is ignored. */
QBVISA_EXPORT void QBVISA_GetLibVersion(char *buffer);

/* ------------------------------------------------------------------------ */
/* Discovery and sessions                                                   */
/* ------------------------------------------------------------------------ */

/* Finds every QB chassis reachable through VISA ("*IDN?" on GPIB, USB, ASRL
 * and TCPIP instruments) and fills `list` with one entry per chassis. The
 * list must hold an entry for every chassis that may answer; at most five
 * are usable. Returns 0 (also when nothing is found), a negative VISA status
 * when the resource manager cannot be opened, or -10020 when a QB instrument
 * reports an unknown model (the chassis found before it stay registered). */
QBVISA_EXPORT int32_t QBVISA_FindRsrc(QBVISA_ResourceEntry *list,
                                      uint32_t *count);
/* Gives the session of `resourceName`, running discovery first if none has
 * run. Returns 0, discovery's error, or -10048 when no chassis has that
 * resource name. */
QBVISA_EXPORT int32_t QBVISA_Connect(const char *resourceName,
                                     uint32_t *session);

/* ------------------------------------------------------------------------ */
/* Opening slots, initialisation, switching                                 */
/* ------------------------------------------------------------------------ */

/* Asks the chassis which sub-matrices/cards are fitted in `slot` (0 = the
 * chassis' own matrix, 1 and 2 = plug-in cards of the RK420/RK420B) and
 * records the slot's geometry. `kind` receives the slot number opened. */
QBVISA_EXPORT int32_t QBVISA_OpenSpecifiedCard(uint32_t session, uint64_t slot,
                                               uint64_t *kind);
/* Prepares the location tables, puts an RK421 into remote control and opens
 * every relay of the slot. */
QBVISA_EXPORT int32_t QBVISA_Init(uint32_t session, uint64_t slot);
/* Presence query of `slot` only: 0 when something is fitted there. */
QBVISA_EXPORT int32_t QBVISABoardInPlaceHDW(uint32_t session, uint64_t slot);

/* Sets the whole relay state of the slot: bit k of words[i] is the wanted
 * state of point i*32+k (1 closed). Points are numbered row by row over all
 * sub-matrices. Only slot 0 switches (-10026 otherwise). On success the
 * words are kept as the slot's last array. -10030 when the frame would close
 * more relays than the chassis allows (nothing is sent). */
QBVISA_EXPORT int32_t QBVISA_OpMatrix(uint32_t session, uint64_t slot,
                                      uint32_t *array, uint32_t words);

/* ------------------------------------------------------------------------ */
/* Text (SCPI-style) commands                                               */
/* ------------------------------------------------------------------------ */

/* Runs one command line; the reply text stays in the chassis record.
 * Returns -10023 for an unknown session, else 0 whatever the outcome. */
QBVISA_EXPORT int32_t QBVISA_SCPIWrite(uint32_t session, const char *line);
/* Clears the stored reply. Always delivers an empty text (kept as the
 * devices' tools have always behaved: use QBVISA_SCPIQuery for replies). */
QBVISA_EXPORT int32_t QBVISA_SCPIRead(uint32_t session, char *text);
/* Runs one command line and writes the reply text into `reply` (at least
 * 400 bytes). Every outcome is reported as text; returns 0. */
QBVISA_EXPORT int32_t QBVISA_SCPIQuery(uint32_t session, const char *line,
                                       char *reply);

/* ------------------------------------------------------------------------ */
/* Communication settings (all but SetIPAddress: RK421 only)                */
/* ------------------------------------------------------------------------ */

/* 192.168.1.0 .. 192.168.1.254 without .200; gateway becomes a.b.c.1. */
QBVISA_EXPORT int32_t QBVISA_SetIPAddress(uint32_t session, const char *ip);
/* Writes "a.b.c.d" into `text` (at least 16 bytes). */
QBVISA_EXPORT int32_t QBVISA_GetCOMMIPAddr(uint32_t session, char *text);
QBVISA_EXPORT int32_t QBVISA_SetGPIBAddress(uint32_t session,
                                            uint32_t address); /* 1..30 */
QBVISA_EXPORT int32_t QBVISA_GetGPIBAddress(uint32_t session,
                                            uint32_t *address);
/* 9600, 19200, 38400, 57600 or 115200; the host side follows the chassis. */
QBVISA_EXPORT int32_t QBVISA_SetBaudRate(uint32_t session, uint32_t rate);
QBVISA_EXPORT int32_t QBVISA_GetBaudRate(uint32_t session, uint32_t *rate);
/* 0 manual IP, 1 automatic IP. Waits 6 s while the chassis restarts its
 * network port. */
QBVISA_EXPORT int32_t QBVISA_SetLANMode(uint32_t session, uint32_t mode);
QBVISA_EXPORT int32_t QBVISA_GetLANMode(uint32_t session, uint32_t *mode);

/* ------------------------------------------------------------------------ */
/* Identity and versions                                                    */
/* ------------------------------------------------------------------------ */

/* Eight-digit serial number and hardware number, both as decimal text.
 * Reports only argument errors: a chassis that does not answer still gives
 * 0. */
QBVISA_EXPORT int32_t QBVISA_SetSN(uint32_t session, const char *sn,
                                   const char *hw);
/* list[0]: chassis serial; list[k]: card k's (0 when unset). `count` entries
 * (at most 30) are copied. */
QBVISA_EXPORT int32_t QBVISA_GetSN(uint32_t session, uint32_t *list,
                                   uint64_t count);
/* slot 1..6. */
QBVISA_EXPORT int32_t QBVISA_SetCardSN(uint32_t session, const char *sn,
                                       const char *hw, int32_t slot);
/* Card model name of slot `card` into `name` (at least 10 bytes). */
QBVISA_EXPORT int32_t QBVISA_GetCardType(uint32_t session, uint32_t card,
                                         char *name);
/* Matrix size ("12*10") of a card model name; "Unknown" otherwise. */
QBVISA_EXPORT int32_t QBVISA_GetCardSize(const char *name, char *size);

/* `list` is an array of 10-byte text slots: slot 0 the chassis, slot k card
 * k (1..slot count). `count` is not used. */
QBVISA_EXPORT int32_t QBVISA_GetHWVersion(uint32_t session, char *list,
                                          uint64_t count);
/* Firmware versions ("3.06") into 10-byte text slots, by model. */
QBVISA_EXPORT int32_t QBVISA_GetSWVersion(uint32_t session, char *list,
                                          uint64_t count);
/* Type code "%04X", two identification characters, serial "%8u" and
 * firmware version. A text is cut to `maxlen` only when the caller's buffer
 * already holds a text at least `maxlen` long. */
QBVISA_EXPORT int32_t QBVISA_GetDeviceInfo(uint32_t session, char *typeText,
                                           char *charText, char *snText,
                                           char *versionText, uint64_t maxlen);

/* ------------------------------------------------------------------------ */
/* Control mode and clearing                                                */
/* ------------------------------------------------------------------------ */

/* 0 local (front panel), 1 remote. RK421 only. */
QBVISA_EXPORT int32_t QBVISA_GetControlMode(uint32_t session, uint32_t *mode);
QBVISA_EXPORT int32_t QBVISA_SetControlMode(uint32_t session, uint32_t mode);
/* Opens every relay of card 0 (forced on single-board chassis). A non-zero
 * card has its last array cleared and gives -10026 without traffic. */
QBVISA_EXPORT int32_t QBVISA_Clear(uint32_t session, uint64_t card);

/* ------------------------------------------------------------------------ */
/* Diagnostics and firmware update                                          */
/*                                                                          */
/* Wire commands (request frame: u16 command, u16 length field, payload;    */
/* little-endian; the length field is 0 except for command 97):             */
/*   80 self-test      payload u16 slot; reply byte 2: fault flags          */
/*                     (bit 0 a board is missing, bit 1 an SPI loop is      */
/*                     broken), byte 3: number of boards tested             */
/*   81 board in place no payload; reply bytes 2..5: 1 when board           */
/*                     position 0..3 answers, else 0 (0 main matrix board,  */
/*                     1 card slot 1, 2 card slot 2, 3 communication board) */
/*   82 SPI loop test  payload u16 slot; reply bytes 2..5: 1 when SPI       */
/*                     chain 0..3 of that slot loops back, else 0           */
/*   96 update begin   payload u16 size low half, u16 size high half;       */
/*                     reply byte 2: 0 ready, else refused                  */
/*   97 update data    length field = chunk size (1..1024), payload = the   */
/*                     chunk; reply byte 2: 0 taken, else refused           */
/*   98 update end     payload u16 checksum low half, u16 high half (the    */
/*                     32-bit byte sum of the whole file); reply byte 2: 0  */
/*                     accepted, else rejected; bytes 4..7: the chassis's   */
/*                     own byte sum of what it received, little-endian      */
/*                                                                          */
/* Every call below checks its arguments first (-10038), then the session   */
/* (-10023). A reply too short to carry the bytes a call reads counts as a  */
/* failed read (-10005), never as a clean result.                           */
/* ------------------------------------------------------------------------ */

/* Runs the chassis's self-test for `slot` (0..2) and writes a one-line
 * verdict into `text` (at most length - 1 characters and a NUL):
 * "Self Test Pass", or "Self Test Fail:" followed by " board missing" and/or
 * " SPI loop broken". Returns 0 on a pass, -10014 when a board is missing,
 * -10018 when only an SPI loop is broken, -10038 for a slot above 2 or a
 * null text, -10023 for an unknown session, or the exchange's error (then
 * `text` is left as it was). A `length` of 0 writes nothing. */
QBVISA_EXPORT int32_t QBVISA_SelfTest(uint32_t session, uint64_t slot,
                                      char *text, uint64_t length);
/* 0 when board position `slot` (0..3, see command 81) answers, -10014 when
 * it does not, -10038 for a position above 3, -10023 for an unknown session,
 * or the exchange's error. */
QBVISA_EXPORT int32_t QBVISA_BoardInPlace(uint32_t session, uint64_t slot);
/* Fills values[0..3] with the four board-in-place flags (1 present) and sets
 * *count to 4. -10038 for a null pointer; on any error neither is written. */
QBVISA_EXPORT int32_t QBVISA_BoardInPlaceInfo(uint32_t session,
                                              int32_t *values,
                                              uint32_t *count);
/* Fills values[0..3] with the SPI loop-back result of the four chains of
 * `slot` (0..2; 1 loops back) and sets *count to 4. A broken loop is a
 * result, not an error: QBVISA_SelfTest turns it into -10018. -10038 for a
 * slot above 2 or a null pointer; on any error neither is written. */
QBVISA_EXPORT int32_t QBVISA_SPILoopTestInfo(uint32_t session, uint64_t slot,
                                             int32_t *values,
                                             uint32_t *count);
/* Sends the firmware image in file `path` to the chassis: command 96 with
 * the size, the file in 1024-byte chunks (command 97), then command 98 with
 * the byte sum (checkSum). Returns 0 when the chassis accepts the image and
 * its own sum matches; -10015 when the file cannot be opened or read, is not
 * a regular file, or shrinks while it is sent; -10038 for a null path, an
 * empty file or one beyond the 32-bit size field; -10019 when the chassis
 * refuses a step or its sum differs; or the exchange's error. Checks run in
 * the order path, session, file, so nothing is sent for a file that cannot
 * be used. A step that fails ends the update at once. The file is streamed
 * through a fixed buffer; nothing is allocated. */
QBVISA_EXPORT int32_t QBVISA_OnlineUpdate(uint32_t session, const char *path);

#ifdef __cplusplus
}
#endif

#endif /* QBVISA_H */
