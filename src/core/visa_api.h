/*
 * visa_api.h - the part of the VISA I/O library that QBVISA calls, declared
 * with VISA's C signatures for 64-bit Linux. Any libvisa.so that follows the
 * VISA standard (a vendor's, or the simulated bench under sim/) serves it.
 * The simulated bench includes this header too, so both sides agree on the
 * types and codes.
 */
#ifndef QBVISA_VISA_API_H
#define QBVISA_VISA_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t ViStatus;
typedef uint32_t ViUInt32;
typedef uint16_t ViUInt16;
typedef uint32_t ViObject;
typedef ViObject ViSession;
typedef ViObject ViFindList;
typedef ViUInt32 ViAttr;
typedef uint64_t ViAttrState;
typedef ViUInt32 ViAccessMode;
typedef char ViChar;
typedef unsigned char ViByte;

#define VI_NULL 0
#define VI_SUCCESS ((ViStatus)0)
#define VI_FIND_BUFLEN 256

/* Completion codes (non-negative). */
#define VI_SUCCESS_TERM_CHAR ((ViStatus)0x3FFF0005)
#define VI_SUCCESS_MAX_CNT ((ViStatus)0x3FFF0006)

/* Error codes (negative). */
#define VI_ERROR_SYSTEM_ERROR ((ViStatus)0xBFFF0000u)
#define VI_ERROR_INV_OBJECT ((ViStatus)0xBFFF000Eu)
#define VI_ERROR_INV_EXPR ((ViStatus)0xBFFF0010u)
#define VI_ERROR_RSRC_NFOUND ((ViStatus)0xBFFF0011u)
#define VI_ERROR_TMO ((ViStatus)0xBFFF0015u)
#define VI_ERROR_NSUP_ATTR ((ViStatus)0xBFFF001Du)
#define VI_ERROR_NSUP_ATTR_STATE ((ViStatus)0xBFFF001Eu)
#define VI_ERROR_ALLOC ((ViStatus)0xBFFF003Cu)
#define VI_ERROR_IO ((ViStatus)0xBFFF003Eu)
#define VI_ERROR_INV_MASK ((ViStatus)0xBFFF0075u)
#define VI_ERROR_CONN_LOST ((ViStatus)0xBFFF00A6u)

/* Attributes and values used by discovery and the baud-rate setting. */
#define VI_ATTR_TMO_VALUE ((ViAttr)0x3FFF001Au)
#define VI_ATTR_ASRL_BAUD ((ViAttr)0x3FFF0021u)
#define VI_ATTR_ASRL_END_IN ((ViAttr)0x3FFF00B3u)
#define VI_ASRL_END_NONE 0

/* viFlush masks. */
#define VI_READ_BUF 1
#define VI_WRITE_BUF 2
#define VI_READ_BUF_DISCARD 4
#define VI_WRITE_BUF_DISCARD 8

ViStatus viOpenDefaultRM(ViSession *vi);
ViStatus viFindRsrc(ViSession sesn, const char *expr, ViFindList *vi,
                    ViUInt32 *retCnt, ViChar desc[]);
ViStatus viFindNext(ViFindList vi, ViChar desc[]);
ViStatus viOpen(ViSession sesn, const char *name, ViAccessMode mode,
                ViUInt32 timeout, ViSession *vi);
ViStatus viClose(ViObject vi);
ViStatus viWrite(ViSession vi, const ViByte *buf, ViUInt32 cnt,
                 ViUInt32 *retCnt);
ViStatus viRead(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt);
ViStatus viSetAttribute(ViObject vi, ViAttr attrName, ViAttrState attrValue);
ViStatus viFlush(ViSession vi, ViUInt16 mask);

#ifdef __cplusplus
}
#endif

#endif /* QBVISA_VISA_API_H */
