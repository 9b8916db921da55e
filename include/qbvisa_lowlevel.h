/*
 * qbvisa_lowlevel.h - the lower-level pieces of libQBVISA.so.1 that tools and
 * tests reach directly: the chassis registry and its records, the request /
 * reply exchange, the slot and relay-frame helpers, the point-location tables
 * and their lookup, the text-command tables and parser, and small utilities.
 *
 * The same rules as qbvisa.h apply: plain C, no exceptions, caller-owned
 * buffers. These pieces take no lock unless stated; the registry and the
 * tables are process-wide.
 */
#ifndef QBVISA_LOWLEVEL_H
#define QBVISA_LOWLEVEL_H

#include <pthread.h>

#include "qbvisa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Chassis record and registry                                              */
/* ------------------------------------------------------------------------ */

#define QBVISA_RECORD_COUNT 32 /* records in the registry */
#define QBVISA_USABLE_RECORDS 5 /* discovery and lookups stop at index 4 */
#define QBVISA_REQUEST_SIZE 1600
#define QBVISA_REPLY_SIZE 400
#define QBVISA_LAST_ARRAY_SIZE 6000
#define QBVISA_SCPI_REPLY_SIZE 256

/* Per-slot state: slot 0 is the chassis' own matrix, slots 1 and 2 plug-in
 * cards of the RK420/RK420B. */
typedef struct SlotArea {
  uint32_t matrixKind;          /* location-table family (MatrixKind); also
                                   the slot's card type code */
  uint8_t cardPresent[21];      /* < 255: sub-matrix / card present */
  int8_t subMatrixGroup[21];    /* n-th fitted sub-matrix -> board; -1 none */
  uint8_t ltIsolationState[2];  /* RK423 LT relays to close (1) */
  uint8_t lastArray[QBVISA_LAST_ARRAY_SIZE]; /* last accepted OpMatrix words */
  uint16_t arrayWordLimit;      /* 32-bit words taken from a caller's array */
  uint16_t subMatrixCount;      /* sub-matrices per row */
  uint16_t groupCount;          /* boards in the relay frame */
  uint16_t wordsPerGroup;       /* 16-bit words per board */
  uint16_t cardExtra;           /* 12 for card type 1 */
  uint16_t rowCount;
  uint16_t columnCount;         /* columns per sub-matrix */
  uint16_t cardWords[2];        /* 13, 13 for cards */
  uint16_t pointCount;
  uint16_t geometryWords[2];    /* 6, 5 (RK420/B); 4, 7 for cards */
  uint16_t ltIsolationCount;    /* RK423 LT isolation relays */
  uint16_t cardWordsFollowing[2]; /* 12, 12 for cards; kept after the listed
                                     fields so their order stays as known */
} SlotArea;

typedef struct ChassisRecord {
  char resourceName[64];
  uint16_t reportedTypeCode;    /* type code handed to the caller */
  char modelName[64];           /* model field of the "*IDN?" answer */
  uint32_t session;             /* open VISA session; 0 = idle record */
  uint16_t firmwareMajor;
  uint16_t firmwareMinor;
  uint16_t slotCount;           /* 6 RK420/B, 4 RK421, 21 RK422, 1 RK423/B */
  uint16_t modelTypeCode;       /* 1050, 1051, 1066, 1082, 1098, 1099 */
  uint8_t requestBuffer[QBVISA_REQUEST_SIZE];
  uint8_t replyBuffer[QBVISA_REPLY_SIZE];
  SlotArea slots[3];
  uint8_t connectedFlag;        /* 1 once QBVISA_Connect reset the slots */
  uint32_t baudRate;            /* rate at which a serial chassis answered */
  char scpiReply[QBVISA_SCPI_REPLY_SIZE];
} ChassisRecord;

QBVISA_EXPORT extern ChassisRecord globalChassisInfo[QBVISA_RECORD_COUNT];

/* Session 0 or no record among 0..4: -10023; else the record's index. */
QBVISA_EXPORT int32_t FindChassis(int32_t session, ChassisRecord **record);
/* First of records 0..4 whose session is 0, else -10023. */
QBVISA_EXPORT int32_t FindIdleChassis(void);

/* Process-wide state. */
QBVISA_EXPORT extern uint32_t defaultRM;       /* VISA resource manager */
QBVISA_EXPORT extern uint8_t first_findrsc;    /* 1 until a discovery ran */
QBVISA_EXPORT extern QBVISA_ResourceEntry tmp[5]; /* Connect's own list */
QBVISA_EXPORT extern uint8_t currentOpSwitch;  /* 0 after a good OpMatrix */
QBVISA_EXPORT extern pthread_mutex_t mutex;    /* settings mutex */
/* The message table: slot i holds the text of code -(10000 + i); slot 54
 * holds " ". */
QBVISA_EXPORT extern char errmsg[55][256];

/* Reserved: present in the library's data, read and written by nothing. */
QBVISA_EXPORT extern int32_t LXICHASSIS;
QBVISA_EXPORT extern int32_t chassisThreads;
QBVISA_EXPORT extern int32_t fdtmp;            /* -1 */
QBVISA_EXPORT extern int32_t devicecount420;
QBVISA_EXPORT extern int32_t devicecount421;
QBVISA_EXPORT extern int32_t devicecount422;
QBVISA_EXPORT extern int32_t devicecount423;
QBVISA_EXPORT extern int32_t MATRIXARRAYSIZE;

/* ------------------------------------------------------------------------ */
/* Message exchange: one write of `length` bytes, one read of up to 400.    */
/* Returns the count read, or -10004 (bad argument / write failed), -10005  */
/* (read failed), -10049 (reply begins FF FF FF FF).                        */
/* ------------------------------------------------------------------------ */
QBVISA_EXPORT int32_t SendRecvMsg(uint32_t session, uint8_t *request,
                                  int32_t length, uint8_t *reply);
/* The same under the process-wide exchange lock. After a failed write the
 * lock is deliberately not released: later locked exchanges block. */
QBVISA_EXPORT int32_t SendRecvMsgLock(uint32_t session, uint16_t *request,
                                      int32_t length, uint8_t *reply);

/* ------------------------------------------------------------------------ */
/* Slot opening helpers                                                     */
/* ------------------------------------------------------------------------ */
QBVISA_EXPORT int32_t BoardInPlaceHDW(ChassisRecord *record, uint64_t slot);
QBVISA_EXPORT int32_t IsBoardExists(ChassisRecord *record, uint64_t slot);
QBVISA_EXPORT int32_t GetSlotHW(ChassisRecord *record, int32_t n);
QBVISA_EXPORT bool IsNewVer_3_06(const ChassisRecord *record);

/* ------------------------------------------------------------------------ */
/* Switching path                                                           */
/* ------------------------------------------------------------------------ */
QBVISA_EXPORT int32_t OpMatrix(ChassisRecord *record, uint64_t slot,
                               uint32_t *array, uint32_t words,
                               uint32_t locked);
QBVISA_EXPORT int32_t UserArrayToMatrixPoints(const uint32_t *array,
                                              int32_t limit, int32_t words,
                                              uint8_t *points);
QBVISA_EXPORT int32_t CheckPointParam(int32_t row, int32_t column,
                                      int32_t state, int32_t rows,
                                      int32_t columns);
QBVISA_EXPORT bool IsOpenCascade(int32_t kind, int32_t row);
QBVISA_EXPORT int32_t SetRelayStateDataType0(ChassisRecord *record,
                                             const uint8_t *points,
                                             uint8_t *image);
QBVISA_EXPORT int32_t SendRelayStateType0(ChassisRecord *record,
                                          const uint8_t *points,
                                          uint16_t *frame, uint32_t locked);

/* ------------------------------------------------------------------------ */
/* Point-location tables                                                    */
/* ------------------------------------------------------------------------ */
QBVISA_EXPORT int32_t GetPoint(uint32_t kind, int32_t selector, uint32_t row,
                               uint32_t column, RelayPosition *out);
QBVISA_EXPORT void InitPointInfo(void);

QBVISA_EXPORT extern int32_t MATRIXPOINTCOUNT;
QBVISA_EXPORT extern int32_t GX3_SUBMATRIXCOL;
QBVISA_EXPORT extern int32_t GX4_SUBMATRIXCOL;
QBVISA_EXPORT extern int32_t GX4_MATRIXPOINTCOUNT;
QBVISA_EXPORT extern int32_t GX4C_SUBMATRIXCOL;
QBVISA_EXPORT extern int32_t GX4C_MATRIXPOINTCOUNT;
QBVISA_EXPORT extern int32_t GX4Mix_SUBMATRIXCOL;
QBVISA_EXPORT extern int32_t GX4Mix_MATRIXPOINTCOUNT;

/* Single-matrix models (kinds 0..3). */
QBVISA_EXPORT extern PointLocation matrixLocation[12][10];
QBVISA_EXPORT extern PointLocation isoLocationX[12][10];
QBVISA_EXPORT extern PointLocation isoLocationY[12][10];
QBVISA_EXPORT extern PointLocation RK421_matrixLocation[10][12];
QBVISA_EXPORT extern PointLocation RK421_isoLocationX[10][12];
QBVISA_EXPORT extern PointLocation RK421_isoLocationY[10][12];
QBVISA_EXPORT extern PointLocation RK421_isoLocationCV[10][12];
QBVISA_EXPORT extern PointLocation RK422_matrixLocation[16][96];
QBVISA_EXPORT extern PointLocation RK422_isoLocationY[16][96];
QBVISA_EXPORT extern PointLocation RK423_matrixLocation[8][12];
QBVISA_EXPORT extern PointLocation RK423_isoLocationX[8][12];
QBVISA_EXPORT extern PointLocation RK423_isoLocationY[8][12];
QBVISA_EXPORT extern PointLocation RK423_isoLocationCV[8][12];
QBVISA_EXPORT extern PointLocation RK423_isoLocationLT[8][12];
/* GX3 (kind 4). */
QBVISA_EXPORT extern PointLocation GX3_matrixLocationAB[8][13];
QBVISA_EXPORT extern PointLocation GX3_isoLocationX_AB[8][13];
QBVISA_EXPORT extern PointLocation GX3_isoLocationY_AB[8][13];
QBVISA_EXPORT extern PointLocation GX3_matrixLocationC[8][12];
QBVISA_EXPORT extern PointLocation GX3_isoLocationX_C[8][12];
QBVISA_EXPORT extern PointLocation GX3_isoLocationY_C[8][12];
QBVISA_EXPORT extern PointLocation GX3_matrixLocationD[8][12];
QBVISA_EXPORT extern PointLocation GX3_isoLocationX_D[8][12];
QBVISA_EXPORT extern PointLocation GX3_isoLocationY_D[8][12];
QBVISA_EXPORT extern PointLocation GX3_cascadeLocation_AB[8];
QBVISA_EXPORT extern PointLocation GX3_cascadeLocation_CD[8];
/* GX4 (kinds 5, 6, rows 0..7 of kind 10). */
QBVISA_EXPORT extern PointLocation GX4_matrixLocationAB[16][13];
QBVISA_EXPORT extern PointLocation GX4_isoLocationX_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4_isoLocationY_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4_matrixLocationCD[16][12];
QBVISA_EXPORT extern PointLocation GX4_isoLocationX_CD[16][12];
QBVISA_EXPORT extern PointLocation GX4_isoLocationY_C[16][12];
QBVISA_EXPORT extern PointLocation GX4_isoLocationY_D[16][12];
QBVISA_EXPORT extern PointLocation GX4_cascadeLocation_AB[16];
QBVISA_EXPORT extern PointLocation GX4_cascadeLocation_CD[16];
/* GX4C (kind 7). */
QBVISA_EXPORT extern PointLocation GX4C_matrixLocationAB[16][13];
QBVISA_EXPORT extern PointLocation GX4C_isoLocationX_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4C_isoLocationY_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4C_matrixLocationCD[16][12];
QBVISA_EXPORT extern PointLocation GX4C_isoLocationX_CD[16][12];
QBVISA_EXPORT extern PointLocation GX4C_isoLocationY_CD[16][12];
QBVISA_EXPORT extern PointLocation GX4C_cascadeLocation_AB[16];
QBVISA_EXPORT extern PointLocation GX4C_cascadeLocation_CD[16];
QBVISA_EXPORT extern PointLocation GX4C_IN_A[16][13];
QBVISA_EXPORT extern PointLocation GX4C_IN_B[16][50];
QBVISA_EXPORT extern PointLocation GX4C_IN_C[16][12];
QBVISA_EXPORT extern PointLocation GX4C_IN_D[16][12];
QBVISA_EXPORT extern PointLocation GX4C_IN_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4C_IN_CD[16][12];
/* GX4CNew (kinds 8, 9, rows 8.. of kind 10). */
QBVISA_EXPORT extern PointLocation GX4CNew_matrixLocationAB[16][13];
QBVISA_EXPORT extern PointLocation GX4CNew_isoLocationX_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4CNew_isoLocationY_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4CNew_matrixLocationCD[16][12];
QBVISA_EXPORT extern PointLocation GX4CNew_isoLocationX_CD[16][12];
QBVISA_EXPORT extern PointLocation GX4CNew_isoLocationY_CD[16][12];
QBVISA_EXPORT extern PointLocation GX4CNew_cascadeLocation_AB[16];
QBVISA_EXPORT extern PointLocation GX4CNew_cascadeLocation_CD[16];
QBVISA_EXPORT extern PointLocation GX4CNew_IN_AB[16][13];
QBVISA_EXPORT extern PointLocation GX4CNew_IN_CD[16][12];
/* AP matrices (kinds 11, 12). */
QBVISA_EXPORT extern PointLocation matrixAPLocation[112];
QBVISA_EXPORT extern PointLocation matrixAP_420BLocation[112];

/* Table fillers, in the order InitPointInfo calls them. */
QBVISA_EXPORT void setMatrixLocation(void);
QBVISA_EXPORT void setISOLocationRow(void);
QBVISA_EXPORT void setISOLocationColumn(void);
QBVISA_EXPORT void setGX3_matrixLocationAB(void);
QBVISA_EXPORT void setISORFLocationRowAB(void);
QBVISA_EXPORT void setISORFLocationColumnAB(void);
QBVISA_EXPORT void setGX3_matrixLocationC(void);
QBVISA_EXPORT void setISORFLocationRowC(void);
QBVISA_EXPORT void setISORFLocationColumnC(void);
QBVISA_EXPORT void setGX3_matrixLocationD(void);
QBVISA_EXPORT void setISORFLocationRowD(void);
QBVISA_EXPORT void setISORFLocationColumnD(void);
QBVISA_EXPORT void setCascadeLocaionAB(void);
QBVISA_EXPORT void setCascadeLocaionCD(void);
QBVISA_EXPORT void setMatrixAPLocation(void);
QBVISA_EXPORT void setMatrixAP_420BLocation(void);
QBVISA_EXPORT void GX4_setCascadeLocaionAB(void);
QBVISA_EXPORT void GX4_setCascadeLocaionCD(void);
QBVISA_EXPORT void GX4_setmatrixLocationAB(void);
QBVISA_EXPORT void GX4_setISOLocationColumnAB(void);
QBVISA_EXPORT void GX4_setISOLocationRowAB(void);
QBVISA_EXPORT void GX4_setmatrixLocationCD(void);
QBVISA_EXPORT void GX4_setISOLocationColumnCD(void);
QBVISA_EXPORT void GX4_setISOLocationRowC(void);
QBVISA_EXPORT void GX4_setISOLocationRowD(void);
QBVISA_EXPORT void GX4CNew_setInAB(void);
QBVISA_EXPORT void GX4CNew_setInCD(void);
QBVISA_EXPORT void GX4CNew_setmatrixLocationAB(void);
QBVISA_EXPORT void GX4CNew_setISOLocationColumnAB(void);
QBVISA_EXPORT void GX4CNew_setISOLocationRowAB(void);
QBVISA_EXPORT void GX4CNew_setmatrixLocationCD(void);
QBVISA_EXPORT void GX4CNew_setISOLocationColumnCD(void);
QBVISA_EXPORT void GX4CNew_setISOLocationRowCD(void);
QBVISA_EXPORT void GX4C_setInA(void);
QBVISA_EXPORT void GX4C_setInB(void);
QBVISA_EXPORT void GX4C_setInC(void);
QBVISA_EXPORT void GX4C_setInD(void);
QBVISA_EXPORT void GX4C_setmatrixLocationAB(void);
QBVISA_EXPORT void GX4C_setISOLocationColumnAB(void);
QBVISA_EXPORT void GX4C_setISOLocationRowAB(void);
QBVISA_EXPORT void GX4C_setmatrixLocationCD(void);
QBVISA_EXPORT void GX4C_setISOLocationColumnCD(void);
QBVISA_EXPORT void GX4C_setISOLocationRowCD(void);
QBVISA_EXPORT void RK421_setMatrixLocation(void);
QBVISA_EXPORT void RK421_setisoLocationX(void);
QBVISA_EXPORT void RK421_setisoLocationY(void);
QBVISA_EXPORT void RK421_setCV(void);
QBVISA_EXPORT void RK422_setMatrixLocation(void);
QBVISA_EXPORT void RK422_setisoLocationY(void);
QBVISA_EXPORT void RK423_setMatrixLocation(void);
QBVISA_EXPORT void RK423_setisoLocationX(void);
QBVISA_EXPORT void RK423_setisoLocationY(void);
QBVISA_EXPORT void RK423_setisoLocationCV(void);
QBVISA_EXPORT void RK423_setisoLocationLT(void);

/* ------------------------------------------------------------------------ */
/* Text-command tables and crosspoint-list parser                           */
/* ------------------------------------------------------------------------ */

/* Size of the argument buffer the dispatch hands to scpi_parser; the parser
 * copies at most QBVISA_SCPI_ARGUMENT_SIZE - 1 bytes of argument. */
#define QBVISA_SCPI_ARGUMENT_SIZE 200

typedef struct ScpiCommandEntry {
  const char *pattern;
  int32_t id;
} ScpiCommandEntry;

QBVISA_EXPORT extern const ScpiCommandEntry commandMapUpperAndLower[26];
QBVISA_EXPORT extern const ScpiCommandEntry commandMapAllUpper[26];

QBVISA_EXPORT int existLowerCase(const char *text);
QBVISA_EXPORT int allUpperCase(char *text);
QBVISA_EXPORT void scpi_parser(uint32_t session, const char *line,
                               char *message, char *argument, uint32_t *id);

typedef struct CrossPoint {
  int32_t row;    /* 1-based */
  int32_t column; /* 1-based */
} CrossPoint;

typedef struct SCPIResult {
  int32_t subunit;
  CrossPoint *points; /* heap array owned by the caller: freeSCPIResult */
  int32_t count;
} SCPIResult;

QBVISA_EXPORT int areParenthesesBalanced(const char *text);
QBVISA_EXPORT SCPIResult parseSCPICrossPoint(const char *text, char *message);
QBVISA_EXPORT int parseCrosspoints(SCPIResult *result, const char *item,
                                   char *message);
QBVISA_EXPORT void freeSCPIResult(SCPIResult *result);

/* ------------------------------------------------------------------------ */
/* Small utilities                                                          */
/* ------------------------------------------------------------------------ */
QBVISA_EXPORT int32_t rotateRight(uint8_t *bytes, int32_t first, int32_t end,
                                  int32_t times);
QBVISA_EXPORT int32_t **alloc2int(int32_t unused, int32_t rows, int32_t cols);
QBVISA_EXPORT void free2int(int32_t **array);
QBVISA_EXPORT uint16_t **alloc2ViUInt16(int32_t unused, int32_t rows,
                                        int32_t cols);
QBVISA_EXPORT void free2ViUInt16(uint16_t **array);
QBVISA_EXPORT int32_t ***alloc3int(int32_t unused, int32_t a, int32_t b,
                                   int32_t c, int32_t fill);
QBVISA_EXPORT void free3int(int32_t ***array);
QBVISA_EXPORT int32_t *dec_2bin(int32_t value);
QBVISA_EXPORT char *mystrncpy(char *text, uint64_t n);
QBVISA_EXPORT uint32_t toInt(const char *dotted);
QBVISA_EXPORT uint32_t checkSum(const uint8_t *bytes, uint32_t n);
QBVISA_EXPORT int32_t countOnes(int32_t ***array, int32_t a, int32_t b,
                                int32_t c);
QBVISA_EXPORT int32_t countOnes3D(int32_t ***array, int32_t a, int32_t b,
                                  int32_t c);
QBVISA_EXPORT int32_t countOnes2D(int32_t **array, int32_t a, int32_t b);
QBVISA_EXPORT bool validIPAddress(const char *text);
QBVISA_EXPORT bool isdigitstr(const char *text);
QBVISA_EXPORT uint16_t ArrayToU16(const uint8_t *bytes16, int32_t *ones);
QBVISA_EXPORT void getHighPrecisionTime(double *seconds);
QBVISA_EXPORT void SLEEP(uint32_t milliseconds);

#ifdef __cplusplus
}
#endif

#endif /* QBVISA_LOWLEVEL_H */
