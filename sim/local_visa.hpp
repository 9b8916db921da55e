// local_visa.hpp - the VISA calls as this process's own bench answers them.
#pragma once

#include "visa_api.h"

namespace qbsim::detail::local {

ViStatus openDefaultRM(ViSession *vi);
ViStatus findRsrc(ViSession manager, const char *expr, ViFindList *list, ViUInt32 *count,
                  ViChar desc[]);
ViStatus findNext(ViFindList list, ViChar desc[]);
ViStatus open(ViSession manager, const char *name, ViSession *vi);
ViStatus close(ViObject vi);
ViStatus write(ViSession vi, const ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt);
ViStatus read(ViSession vi, ViByte *buf, ViUInt32 cnt, ViUInt32 *retCnt);
ViStatus setAttribute(ViObject vi, ViAttr attr, ViAttrState value);
ViStatus flush(ViSession vi, ViUInt16 mask);

}  // namespace qbsim::detail::local
