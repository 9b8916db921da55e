// rack_service.cpp - decoding and answering the rack server's requests.
#include "rack_service.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "local_visa.hpp"
#include "remote.hpp"
#include "runtime.hpp"

namespace qbsim::server {
namespace {

using detail::Op;
using detail::Runtime;
namespace local = detail::local;

constexpr ViStatus kUnsupported = static_cast<ViStatus>(0xBFFF0067u);  // VI_ERROR_NSUP_OPER

// ONC RPC message fields.
constexpr uint32_t kCall = 0, kReply = 1;
constexpr uint32_t kAccepted = 0, kDenied = 1;
constexpr uint32_t kSuccess = 0, kProgUnavailable = 1, kProgMismatch = 2, kProcUnavailable = 3,
                   kGarbageArgs = 4;
constexpr uint32_t kIpProtoTcp = 6;

// VXI-11 device error codes and read reasons.
constexpr int32_t kNoError = 0, kDeviceNotAccessible = 3, kInvalidLink = 4, kParameterError = 5,
                  kNotSupported = 8, kOutOfResources = 9, kIoTimeout = 15, kIoError = 17;
constexpr int32_t kReasonRequestCount = 1, kReasonTermChar = 2, kReasonEnd = 4;
constexpr int32_t kFlagEnd = 8, kFlagTermChar = 0x80;
constexpr size_t kMostLinks = 64;

bool sameName(const std::string &a, const std::string &b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

Bytes status(int32_t s) {
  wire::Writer w;
  w.i32(s);
  return std::move(w.out());
}

int32_t deviceError(ViStatus s) {
  if (s == VI_ERROR_TMO) return kIoTimeout;
  if (s == VI_ERROR_INV_OBJECT) return kInvalidLink;
  return s < 0 ? kIoError : kNoError;
}

}  // namespace

bool nextControlMessage(Bytes &buffer, Bytes &message) {
  message.clear();
  if (buffer.size() < 4) return true;
  const uint32_t size = wire::Reader(buffer.data(), 4).u32();
  if (size == 0 || size > wire::kMaxMessage) return false;
  if (buffer.size() - 4 < size) return true;
  message.assign(buffer.begin() + 4, buffer.begin() + 4 + size);
  buffer.erase(buffer.begin(), buffer.begin() + 4 + size);
  return true;
}

bool nextRpcRecord(Bytes &buffer, Bytes &record) {
  record.clear();
  // Walk the fragments without taking any until the last one is in.
  size_t at = 0, total = 0;
  for (;;) {
    if (buffer.size() - at < 4) return true;
    const uint32_t mark = wire::Reader(buffer.data() + at, 4, true).u32();
    const size_t length = mark & 0x7FFFFFFFu;
    // Headers count too: endless empty fragments must not grow the buffer.
    total += 4 + length;
    if (total > kMaxRecord) return false;
    if (buffer.size() - at - 4 < length) return true;
    at += 4 + length;
    if (mark & 0x80000000u) break;
  }
  for (size_t pos = 0; pos < at;) {
    const size_t length = wire::Reader(buffer.data() + pos, 4, true).u32() & 0x7FFFFFFFu;
    record.insert(record.end(), buffer.begin() + pos + 4, buffer.begin() + pos + 4 + length);
    pos += 4 + length;
  }
  buffer.erase(buffer.begin(), buffer.begin() + at);
  // A record of empty fragments carries no call: nothing to answer.
  return true;
}

std::optional<Bytes> RackService::control(ClientState &client, const uint8_t *data, size_t size) {
  wire::Reader in(data, size);
  const uint8_t op = in.u8();
  if (!in.ok()) return std::nullopt;
  if (op < static_cast<uint8_t>(Op::Relays)) return visaRequest(client, op, in);
  return rackRequest(op, in);
}

std::optional<Bytes> RackService::visaRequest(ClientState &client, uint8_t op, wire::Reader &in) {
  wire::Writer out;
  // Objects a client may name: only its own, so that one process cannot
  // close or read another's session.
  const auto own = [&client](ViObject vi) { return client.objects.count(vi) != 0; };
  switch (static_cast<Op>(op)) {
    case Op::OpenDefaultRM: {
      if (!in.atEnd()) return std::nullopt;
      ViSession manager = VI_NULL;
      const ViStatus s = local::openDefaultRM(&manager);
      if (s >= 0) client.objects.insert(manager);
      out.i32(s).u32(manager);
      break;
    }
    case Op::FindRsrc: {
      const ViSession manager = in.u32();
      const std::string expr = in.text(4096);
      if (!in.atEnd()) return std::nullopt;
      ViFindList list = VI_NULL;
      ViUInt32 count = 0;
      ViChar first[VI_FIND_BUFLEN] = {};
      const ViStatus s = own(manager) ? local::findRsrc(manager, expr.c_str(), &list, &count, first)
                                      : VI_ERROR_INV_OBJECT;
      if (s >= 0) client.objects.insert(list);
      out.i32(s).u32(list).u32(count).text(first);
      break;
    }
    case Op::FindNext: {
      const ViFindList list = in.u32();
      if (!in.atEnd()) return std::nullopt;
      ViChar next[VI_FIND_BUFLEN] = {};
      out.i32(own(list) ? local::findNext(list, next) : VI_ERROR_INV_OBJECT).text(next);
      break;
    }
    case Op::Open: {
      const ViSession manager = in.u32();
      const std::string name = in.text(4096);
      if (!in.atEnd()) return std::nullopt;
      ViSession vi = VI_NULL;
      const ViStatus s =
          own(manager) ? local::open(manager, name.c_str(), &vi) : VI_ERROR_INV_OBJECT;
      if (s >= 0) client.objects.insert(vi);
      out.i32(s).u32(vi);
      break;
    }
    case Op::Close: {
      const ViObject vi = in.u32();
      if (!in.atEnd()) return std::nullopt;
      const ViStatus s = own(vi) ? local::close(vi) : VI_ERROR_INV_OBJECT;
      if (s >= 0) client.objects.erase(vi);
      out.i32(s);
      break;
    }
    case Op::Write: {
      const ViSession vi = in.u32();
      const Bytes bytes = in.bytes();
      if (!in.atEnd()) return std::nullopt;
      ViUInt32 count = 0;
      const ViStatus s =
          own(vi) ? local::write(vi, bytes.data(), static_cast<ViUInt32>(bytes.size()), &count)
                  : VI_ERROR_INV_OBJECT;
      out.i32(s).u32(count);
      break;
    }
    case Op::Read: {
      const ViSession vi = in.u32();
      const uint32_t wanted = in.u32();
      if (!in.atEnd() || wanted > wire::kMaxMessage / 2) return std::nullopt;
      Bytes buffer(wanted);
      ViUInt32 count = 0;
      const ViStatus s =
          own(vi) ? local::read(vi, buffer.data(), wanted, &count) : VI_ERROR_INV_OBJECT;
      out.i32(s).bytes(buffer.data(), std::min<size_t>(count, wanted));
      break;
    }
    case Op::SetAttribute: {
      const ViObject vi = in.u32();
      const ViAttr attr = in.u32();
      const uint64_t value = in.u64();
      if (!in.atEnd()) return std::nullopt;
      out.i32(own(vi) ? local::setAttribute(vi, attr, value) : VI_ERROR_INV_OBJECT);
      break;
    }
    case Op::Flush: {
      const ViSession vi = in.u32();
      const uint16_t mask = in.u16();
      if (!in.atEnd()) return std::nullopt;
      out.i32(own(vi) ? local::flush(vi, mask) : VI_ERROR_INV_OBJECT);
      break;
    }
    default: return status(kUnsupported);
  }
  return std::move(out.out());
}

std::optional<Bytes> RackService::rackRequest(uint8_t op, wire::Reader &in) {
  wire::Writer out;
  try {
    switch (static_cast<Op>(op)) {
      case Op::Relays: {
        const std::string resource = in.text(4096);
        if (!in.atEnd()) return std::nullopt;
        const auto relays = closedRelays(resource);
        out.i32(static_cast<int32_t>(relays.size())).u32(static_cast<uint32_t>(relays.size()));
        for (const Relay &r : relays) out.i32(r.board).i32(r.group).i32(r.bit);
        break;
      }
      case Op::Geometry: {
        const std::string resource = in.text(4096);
        if (!in.atEnd()) return std::nullopt;
        const auto state = chassisState(resource);
        out.i32(0).i32(detail::boardCount(state.model)).i32(groupsPerBoard(resource));
        break;
      }
      case Op::LoadBench: {
        const std::string json = in.text();
        if (!in.atEnd()) return std::nullopt;
        try {
          setBench(parseBench(json));
          out.i32(0).text("");
        } catch (const std::runtime_error &e) {
          out.i32(-1).text(e.what());
        }
        break;
      }
      case Op::DefaultBench:
        if (!in.atEnd()) return std::nullopt;
        setBench(defaultBench());
        out.i32(0);
        break;
      case Op::Reset: {
        if (!in.atEnd()) return std::nullopt;
        const Bench initial = currentBench();
        setBench(initial);
        out.i32(0);
        break;
      }
      case Op::ResetResource: {
        const std::string resource = in.text(4096);
        if (!in.atEnd()) return std::nullopt;
        Runtime::instance().resetInstrument(resource);
        out.i32(0);
        break;
      }
      case Op::Fault: {
        const std::string resource = in.text(4096);
        const std::string kind = in.text(64);
        if (!in.atEnd()) return std::nullopt;
        const auto fault = detail::faultNamed(kind);
        if (!fault) return status(-1);
        injectFault(resource, *fault);
        out.i32(0);
        break;
      }
      case Op::BenchJson:
        if (!in.atEnd()) return std::nullopt;
        out.i32(0).text(benchToJson(currentBench()));
        break;
      case Op::StateJson:
        if (!in.atEnd()) return std::nullopt;
        out.i32(0).text(benchToJson(Runtime::instance().liveBench()));
        break;
      case Op::Stop:
        if (!in.atEnd()) return std::nullopt;
        stop_ = true;
        out.i32(0);
        break;
      default: return status(kUnsupported);
    }
  } catch (const std::exception &) {
    // No such resource, not a chassis, or a bench that cannot be loaded.
    return status(-1);
  }
  return std::move(out.out());
}

void RackService::disconnect(ClientState &client) {
  // Closing a manager closes everything opened through it; the rest (a
  // manager of an earlier bench) is gone already and answers INV_OBJECT.
  for (const ViObject vi : client.objects) local::close(vi);
  client.objects.clear();
  for (const auto &[id, link] : client.links) local::close(link.session);
  client.links.clear();
  if (client.manager != VI_NULL) local::close(client.manager);
  client.manager = VI_NULL;
}

std::optional<std::string> chassisForDevice(const std::string &device) {
  Bench bench;
  try {
    bench = currentBench();
  } catch (const std::exception &) {
    return std::nullopt;
  }
  size_t index = 0;
  const bool numbered =
      device.size() > 4 && device.size() <= 8 && sameName(device.substr(0, 4), "inst") &&
      std::all_of(device.begin() + 4, device.end(),
                  [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
  const size_t wanted = numbered ? std::stoul(device.substr(4)) : 0;
  for (const Resource &r : bench.resources) {
    if (r.kind != ResourceKind::Chassis) continue;
    if (numbered ? index++ == wanted : sameName(r.name, device)) return r.name;
  }
  return std::nullopt;
}

int32_t RackService::createLink(ClientState &client, const std::string &device, int32_t &link) {
  link = 0;
  const auto resource = chassisForDevice(device);
  if (!resource) return kDeviceNotAccessible;
  if (client.links.size() >= kMostLinks) return kOutOfResources;
  if (client.manager == VI_NULL && local::openDefaultRM(&client.manager) < 0) {
    client.manager = VI_NULL;
    return kDeviceNotAccessible;
  }
  ViSession vi = VI_NULL;
  if (local::open(client.manager, resource->c_str(), &vi) < 0) {
    // The manager may belong to a bench that was replaced since: try a new one.
    client.manager = VI_NULL;
    if (local::openDefaultRM(&client.manager) < 0 ||
        local::open(client.manager, resource->c_str(), &vi) < 0)
      return kDeviceNotAccessible;
  }
  // A LAN client speaks to a serial chassis at the chassis's own rate.
  if (const auto session = Runtime::instance().session(vi)) {
    std::lock_guard lock(session->instrument->mutex());
    if (session->instrument->firmware() != nullptr)
      session->baudRate = session->instrument->firmware()->state().baudRate;
  }
  link = static_cast<int32_t>(vi);
  client.links[link] = ClientState::Link{vi, {}};
  return kNoError;
}

bool RackService::vxi11(ClientState &client, uint32_t procedure, wire::Reader &in,
                        wire::Writer &out) {
  const auto linkOf = [&client](int32_t id) -> ClientState::Link * {
    const auto it = client.links.find(id);
    return it == client.links.end() ? nullptr : &it->second;
  };
  switch (procedure) {
    case 0: return in.atEnd();  // NULL
    case 10: {  // create_link: client id, lock device, lock time-out, device
      in.i32();
      in.u32();
      in.u32();
      const std::string device = in.text(256);
      if (!in.atEnd()) return false;
      int32_t link = 0;
      const int32_t error = createLink(client, device, link);
      out.i32(error).i32(link).u32(0).u32(kMaxReceive);
      return true;
    }
    case 11: {  // device_write
      const int32_t id = in.i32();
      in.u32();  // io time-out
      in.u32();  // lock time-out
      const int32_t flags = in.i32();
      const Bytes data = in.bytes(kMaxRecord);
      if (!in.atEnd()) return false;
      ClientState::Link *link = linkOf(id);
      if (link == nullptr) {
        out.i32(kInvalidLink).u32(0);
        return true;
      }
      if (link->pending.size() + data.size() > kMaxRecord) {
        link->pending.clear();
        out.i32(kParameterError).u32(0);
        return true;
      }
      link->pending.insert(link->pending.end(), data.begin(), data.end());
      int32_t error = kNoError;
      // The instrument sees one message: everything up to the END flag.
      if (flags & kFlagEnd) {
        ViUInt32 count = 0;
        error = deviceError(local::write(link->session, link->pending.data(),
                                         static_cast<ViUInt32>(link->pending.size()), &count));
        link->pending.clear();
      }
      out.i32(error).u32(error == kNoError ? static_cast<uint32_t>(data.size()) : 0);
      return true;
    }
    case 12: {  // device_read
      const int32_t id = in.i32();
      const uint32_t requested = in.u32();
      in.u32();  // io time-out
      in.u32();  // lock time-out
      const int32_t flags = in.i32();
      const int32_t termChar = in.i32();
      if (!in.atEnd()) return false;
      ClientState::Link *link = linkOf(id);
      if (link == nullptr) {
        out.i32(kInvalidLink).i32(0).bytes(nullptr, 0);
        return true;
      }
      Bytes data(std::min(requested, kMaxReceive));
      ViUInt32 count = 0;
      const ViStatus s =
          local::read(link->session, data.data(), static_cast<ViUInt32>(data.size()), &count);
      data.resize(std::min<size_t>(count, data.size()));
      int32_t reason = s == VI_SUCCESS ? kReasonEnd : kReasonRequestCount;
      if ((flags & kFlagTermChar) && !data.empty() && data.back() == static_cast<uint8_t>(termChar))
        reason |= kReasonTermChar;
      if (s < 0) {
        out.i32(deviceError(s)).i32(0).bytes(nullptr, 0);
      } else {
        out.i32(kNoError).i32(reason).bytes(data);
      }
      return true;
    }
    case 13: {  // device_readstb
      const int32_t id = in.i32();
      in.i32();
      in.u32();
      in.u32();
      if (!in.atEnd()) return false;
      out.i32(linkOf(id) ? kNoError : kInvalidLink).u32(0);
      return true;
    }
    case 14:
    case 15:
    case 16:
    case 17: {  // trigger, clear, remote, local
      const int32_t id = in.i32();
      in.i32();
      in.u32();
      in.u32();
      if (!in.atEnd()) return false;
      ClientState::Link *link = linkOf(id);
      if (link != nullptr && procedure == 15) {
        link->pending.clear();
        local::flush(link->session, VI_READ_BUF_DISCARD);
      }
      out.i32(link ? kNoError : kInvalidLink);
      return true;
    }
    case 18:
    case 19: {  // device_lock, device_unlock
      const int32_t id = in.i32();
      if (procedure == 18) {
        in.i32();
        in.u32();
      }
      if (!in.atEnd()) return false;
      out.i32(linkOf(id) ? kNoError : kInvalidLink);
      return true;
    }
    case 20: {  // device_enable_srq
      const int32_t id = in.i32();
      in.u32();
      in.bytes(40);
      if (!in.atEnd()) return false;
      out.i32(linkOf(id) ? kNotSupported : kInvalidLink);
      return true;
    }
    case 22: {  // device_docmd
      in.i32();
      in.i32();
      in.u32();
      in.u32();
      in.i32();
      in.u32();
      in.i32();
      in.bytes(kMaxRecord);
      if (!in.atEnd()) return false;
      out.i32(kNotSupported).bytes(nullptr, 0);
      return true;
    }
    case 23: {  // destroy_link
      const int32_t id = in.i32();
      if (!in.atEnd()) return false;
      ClientState::Link *link = linkOf(id);
      if (link == nullptr) {
        out.i32(kInvalidLink);
        return true;
      }
      local::close(link->session);
      client.links.erase(id);
      out.i32(kNoError);
      return true;
    }
    case 25:
    case 26:  // create_intr_chan, destroy_intr_chan
      out.i32(kNotSupported);
      return true;
    default: return false;
  }
}

std::optional<Bytes> RackService::rpc(ClientState &client, const uint8_t *data, size_t size) {
  wire::Reader in(data, size, true);
  const uint32_t xid = in.u32();
  const uint32_t type = in.u32();
  if (!in.ok() || type != kCall) return std::nullopt;
  const uint32_t rpcVersion = in.u32();
  const uint32_t program = in.u32();
  const uint32_t version = in.u32();
  const uint32_t procedure = in.u32();
  in.skipAuth();  // credential
  in.skipAuth();  // verifier
  if (!in.ok()) return std::nullopt;

  wire::Writer out(true);
  out.u32(xid).u32(kReply);
  if (rpcVersion != 2) {
    out.u32(kDenied).u32(0).u32(2).u32(2);  // RPC_MISMATCH, versions 2..2
    return std::move(out.out());
  }
  out.u32(kAccepted).u32(0).u32(0);  // verifier: none
  const size_t statusAt = out.out().size();
  out.u32(kSuccess);

  const auto mismatch = [&out, statusAt](uint32_t supported) {
    out.out().resize(statusAt);
    out.u32(kProgMismatch).u32(supported).u32(supported);
  };
  if (program == kPortMapperProgram) {
    if (version != 2) {
      mismatch(2);
    } else if (procedure == 0) {
      if (!in.atEnd()) out.out().resize(statusAt), out.u32(kGarbageArgs);
    } else if (procedure == 3) {  // GETPORT
      const uint32_t wantedProgram = in.u32();
      const uint32_t wantedVersion = in.u32();
      const uint32_t protocol = in.u32();
      in.u32();
      if (!in.atEnd()) {
        out.out().resize(statusAt);
        out.u32(kGarbageArgs);
      } else {
        const bool core =
            wantedProgram == kVxi11CoreProgram && wantedVersion == 1 && protocol == kIpProtoTcp;
        out.u32(core ? corePort_ : 0);
      }
    } else if (procedure == 4) {  // DUMP: the one program served
      if (!in.atEnd()) {
        out.out().resize(statusAt);
        out.u32(kGarbageArgs);
      } else {
        out.u32(1).u32(kVxi11CoreProgram).u32(1).u32(kIpProtoTcp).u32(corePort_).u32(0);
      }
    } else {
      out.out().resize(statusAt);
      out.u32(kProcUnavailable);
    }
  } else if (program == kVxi11CoreProgram) {
    if (version != 1) {
      mismatch(1);
    } else {
      const bool known = procedure == 0 || (procedure >= 10 && procedure <= 20) ||
                         procedure == 22 || procedure == 23 || procedure == 25 || procedure == 26;
      if (!known) {
        out.out().resize(statusAt);
        out.u32(kProcUnavailable);
      } else if (!vxi11(client, procedure, in, out)) {
        out.out().resize(statusAt);
        out.u32(kGarbageArgs);
      }
    }
  } else {
    out.out().resize(statusAt);
    out.u32(kProgUnavailable);
  }
  return std::move(out.out());
}

}  // namespace qbsim::server
