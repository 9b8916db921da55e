// visa.cpp - the VISA entry points of the simulated libvisa.so. With
// $QBSIM_SERVER naming a rack server's socket every call goes to that server
// (one rack shared by every process); otherwise this process simulates its
// own bench.
#include "local_visa.hpp"
#include "remote.hpp"

#define QBSIM_VISA_EXPORT __attribute__((visibility("default")))

using qbsim::detail::RemoteRack;
namespace local = qbsim::detail::local;

extern "C" {

QBSIM_VISA_EXPORT ViStatus viOpenDefaultRM(ViSession *vi) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->openDefaultRM(vi);
  return local::openDefaultRM(vi);
}

QBSIM_VISA_EXPORT ViStatus viFindRsrc(ViSession sesn, const char *expr, ViFindList *vi,
                                      ViUInt32 *retCnt, ViChar desc[]) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment())
    return rack->findRsrc(sesn, expr, vi, retCnt, desc);
  return local::findRsrc(sesn, expr, vi, retCnt, desc);
}

QBSIM_VISA_EXPORT ViStatus viFindNext(ViFindList vi, ViChar desc[]) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->findNext(vi, desc);
  return local::findNext(vi, desc);
}

QBSIM_VISA_EXPORT ViStatus viOpen(ViSession sesn, const char *name, ViAccessMode, ViUInt32,
                                  ViSession *vi) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->open(sesn, name, vi);
  return local::open(sesn, name, vi);
}

QBSIM_VISA_EXPORT ViStatus viClose(ViObject vi) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->close(vi);
  return local::close(vi);
}

QBSIM_VISA_EXPORT ViStatus viWrite(ViSession vi, const ViByte *buf, ViUInt32 cnt,
                                   ViUInt32 *retCnt) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->write(vi, buf, cnt, retCnt);
  return local::write(vi, buf, cnt, retCnt);
}

QBSIM_VISA_EXPORT ViStatus viRead(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->read(vi, buf, cnt, retCnt);
  return local::read(vi, buf, cnt, retCnt);
}

QBSIM_VISA_EXPORT ViStatus viSetAttribute(ViObject vi, ViAttr attrName, ViAttrState attrValue) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment())
    return rack->setAttribute(vi, attrName, attrValue);
  return local::setAttribute(vi, attrName, attrValue);
}

QBSIM_VISA_EXPORT ViStatus viFlush(ViSession vi, ViUInt16 mask) {
  if (RemoteRack *rack = RemoteRack::fromEnvironment()) return rack->flush(vi, mask);
  return local::flush(vi, mask);
}

}  // extern "C"
