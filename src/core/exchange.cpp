// One request frame out, one reply of up to 400 bytes back.
#include <pthread.h>

#include "core/visa_api.h"
#include "qbvisa_lowlevel.h"

namespace {

// One lock for every chassis: the relay path serialises its frames on it.
pthread_mutex_t exchangeMutex = PTHREAD_MUTEX_INITIALIZER;

// A controller that cannot carry out a request answers FF FF FF FF.
bool isFailureReply(const uint8_t *reply) {
  return reply[0] == 0xFF && reply[1] == 0xFF && reply[2] == 0xFF &&
         reply[3] == 0xFF;
}

// A null reply buffer is refused with the bad-argument code before anything
// reaches the wire, rather than letting the read write through it.
bool badArguments(uint32_t session, const void *request, int32_t length,
                  const uint8_t *reply) {
  return session == 0 || request == nullptr || length <= 0 ||
         reply == nullptr;
}

int32_t replyStatus(ViStatus readStatus, const uint8_t *reply,
                    ViUInt32 count) {
  if (readStatus < VI_SUCCESS) return QBVISA_ERR_RECEIVE;
  // A reply shorter than four bytes is judged on whatever the buffer held.
  if (isFailureReply(reply)) return QBVISA_ERR_DEVICE_FAILURE;
  return static_cast<int32_t>(count);
}

}  // namespace

extern "C" {

QBVISA_EXPORT int32_t SendRecvMsg(uint32_t session, uint8_t *request,
                                  int32_t length, uint8_t *reply) {
  if (badArguments(session, request, length, reply)) return QBVISA_ERR_SEND;
  ViUInt32 written{};
  if (viWrite(session, request, static_cast<ViUInt32>(length), &written) <
      VI_SUCCESS)
    return QBVISA_ERR_SEND;
  ViUInt32 count{};
  const ViStatus status = viRead(session, reply, QBVISA_REPLY_SIZE, &count);
  return replyStatus(status, reply, count);
}

QBVISA_EXPORT int32_t SendRecvMsgLock(uint32_t session, uint16_t *request,
                                      int32_t length, uint8_t *reply) {
  if (badArguments(session, request, length, reply)) return QBVISA_ERR_SEND;
  pthread_mutex_lock(&exchangeMutex);
  ViUInt32 written{};
  if (viWrite(session, reinterpret_cast<const ViByte *>(request),
              static_cast<ViUInt32>(length), &written) < VI_SUCCESS) {
    // The lock stays taken on purpose: after a failed write every later
    // guarded exchange waits instead of sending frames to a chassis whose
    // state is unknown.
    return QBVISA_ERR_SEND;
  }
  ViUInt32 count{};
  const ViStatus status = viRead(session, reply, QBVISA_REPLY_SIZE, &count);
  pthread_mutex_unlock(&exchangeMutex);
  return replyStatus(status, reply, count);
}

}  // extern "C"
