// runtime.cpp - instruments and the table of open VISA objects.
#include "runtime.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "expression.hpp"

namespace qbsim::detail {
namespace {

// The log keeps the most recent entries so that long benchmark runs do not
// grow without bound; tests look at far fewer.
constexpr size_t kTrafficLimit = 16384;

bool sameName(const std::string &a, const std::string &b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool startsWith(const uint8_t *bytes, size_t count, const char *prefix) {
  const size_t n = std::strlen(prefix);
  return count >= n && std::memcmp(bytes, prefix, n) == 0;
}

void copyDescription(ViChar *out, const std::string &name) {
  if (out == nullptr) return;
  const size_t n = std::min(name.size(), static_cast<size_t>(VI_FIND_BUFLEN - 1));
  std::memcpy(out, name.data(), n);
  out[n] = '\0';
}

}  // namespace

Instrument::Instrument(const Resource &resource)
    : name_(resource.name),
      kind_(resource.kind),
      serial_(sameName(resource.name.substr(0, 4), "ASRL")),
      idn_(resource.idn) {
  if (kind_ == ResourceKind::Chassis) firmware_.emplace(resource.chassis);
}

void Instrument::log(bool write, const uint8_t *bytes, size_t count) {
  if (traffic_.size() == kTrafficLimit) traffic_.pop_front();
  traffic_.push_back(TrafficEntry{write, std::vector<uint8_t>(bytes, bytes + count)});
}

std::optional<std::vector<uint8_t>> Instrument::answer(const Session &s, const uint8_t *bytes,
                                                       size_t count) {
  const bool identify = startsWith(bytes, count, "*IDN?");
  bool answers = false;
  switch (kind_) {
    case ResourceKind::Silent: break;
    case ResourceKind::Foreign: answers = identify; break;
    // On a serial line a chassis understands only frames sent at its own rate.
    case ResourceKind::Chassis: answers = !serial_ || s.baudRate == firmware_->state().baudRate; break;
  }
  if (!answers) return std::nullopt;
  if (std::exchange(failureReply_, false)) {
    std::vector<uint8_t> out(64, 0);
    std::fill_n(out.begin(), 4, 0xFF);
    return out;
  }
  std::vector<uint8_t> out;
  if (identify) {
    const std::string text = kind_ == ResourceKind::Foreign ? idn_ : firmware_->identification();
    out.assign(text.begin(), text.end());
  } else {
    out = firmware_->handle(bytes, count);
  }
  if (std::exchange(shortReply_, false) && out.size() > 2) out.resize(2);
  return out;
}

ViStatus Instrument::write(Session &s, const uint8_t *bytes, size_t count) {
  if (vanished()) return VI_ERROR_CONN_LOST;
  if (std::exchange(writeFails_, false)) return VI_ERROR_IO;
  log(true, bytes, count);
  s.reply.clear();
  s.replyRead = 0;
  if (auto reply = answer(s, bytes, count)) s.reply = std::move(*reply);
  return VI_SUCCESS;
}

ViStatus Instrument::read(Session &s, uint8_t *bytes, size_t count, size_t &delivered) {
  delivered = 0;
  if (vanished()) return VI_ERROR_CONN_LOST;
  const bool fails = std::exchange(readFails_, false);
  const bool timesOut = std::exchange(timeout_, false);
  if (fails || timesOut || s.replyRead >= s.reply.size()) {
    s.reply.clear();
    s.replyRead = 0;
    return fails ? VI_ERROR_IO : VI_ERROR_TMO;
  }
  const size_t left = s.reply.size() - s.replyRead;
  delivered = std::min(count, left);
  if (delivered > 0) {
    std::memcpy(bytes, s.reply.data() + s.replyRead, delivered);
    log(false, bytes, delivered);
  }
  s.replyRead += delivered;
  if (delivered < left) return VI_SUCCESS_MAX_CNT;
  s.reply.clear();
  s.replyRead = 0;
  return std::exchange(completion_, VI_SUCCESS);
}

void Instrument::inject(Fault fault) {
  switch (fault) {
    case Fault::WriteFails: writeFails_ = true; break;
    case Fault::ReadFails: readFails_ = true; break;
    case Fault::FailureReply: failureReply_ = true; break;
    case Fault::ShortReply: shortReply_ = true; break;
    case Fault::Timeout: timeout_ = true; break;
    case Fault::Vanish: vanished_.store(true, std::memory_order_release); break;
    case Fault::TermCharCompletion: completion_ = VI_SUCCESS_TERM_CHAR; break;
    case Fault::MaxCountCompletion: completion_ = VI_SUCCESS_MAX_CNT; break;
  }
}

Runtime &Runtime::instance() {
  static Runtime runtime;
  return runtime;
}

bool Runtime::loadLocked() {
  if (!loaded_) {
    loaded_ = true;
    Bench bench;
    const char *path = std::getenv("QBSIM_BENCH");
    try {
      bench = path != nullptr && *path != '\0' ? loadBenchFile(path) : defaultBench();
    } catch (const std::exception &e) {
      loadError_ = e.what();
      std::fprintf(stderr, "qbsim: %s\n", loadError_.c_str());
    }
    buildLocked(bench, bench);
  }
  return loadError_.empty();
}

void Runtime::buildLocked(const Bench &bench, const Bench &described) {
  bench_ = described;
  instruments_.clear();
  for (const auto &r : bench.resources) instruments_.push_back(std::make_shared<Instrument>(r));
  objects_.clear();
}

ViObject Runtime::newIdLocked() {
  // Numbers are never handed out twice, so a stale session cannot alias a
  // new one; 0 is VI_NULL.
  if (nextId_ == 0) nextId_ = 1;
  return nextId_++;
}

ViStatus Runtime::openDefaultRM(ViSession *vi) {
  if (vi == nullptr) return kErrorUserBuffer;
  std::lock_guard lock(mutex_);
  *vi = VI_NULL;
  if (!loadLocked()) return VI_ERROR_SYSTEM_ERROR;
  const ViObject id = newIdLocked();
  objects_.emplace(id, Object{Object::Manager});
  *vi = id;
  return VI_SUCCESS;
}

ViStatus Runtime::findResources(ViSession manager, const char *expression, ViFindList *list,
                                ViUInt32 *count, ViChar *description) {
  std::lock_guard lock(mutex_);
  if (count != nullptr) *count = 0;
  if (list != nullptr) *list = VI_NULL;
  const auto it = objects_.find(manager);
  if (it == objects_.end() || it->second.kind != Object::Manager) return VI_ERROR_INV_OBJECT;
  if (expression == nullptr) return VI_ERROR_INV_EXPR;
  Object found{Object::FindList, manager};
  for (const auto &instrument : instruments_) {
    if (instrument->vanished()) continue;
    const auto match = matchResourceExpression(expression, instrument->name());
    if (!match) return VI_ERROR_INV_EXPR;
    if (*match) found.found.push_back(instrument->name());
  }
  if (found.found.empty()) return VI_ERROR_RSRC_NFOUND;
  copyDescription(description, found.found.front());
  found.next = 1;
  if (count != nullptr) *count = static_cast<ViUInt32>(found.found.size());
  const ViObject id = newIdLocked();
  if (list != nullptr) *list = id;
  objects_.emplace(id, std::move(found));
  return VI_SUCCESS;
}

ViStatus Runtime::findNext(ViFindList list, ViChar *description) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(list);
  if (it == objects_.end() || it->second.kind != Object::FindList) return VI_ERROR_INV_OBJECT;
  Object &found = it->second;
  if (found.next >= found.found.size()) return VI_ERROR_RSRC_NFOUND;
  copyDescription(description, found.found[found.next++]);
  return VI_SUCCESS;
}

ViStatus Runtime::open(ViSession manager, const char *name, ViSession *vi) {
  if (vi == nullptr) return kErrorUserBuffer;
  std::lock_guard lock(mutex_);
  *vi = VI_NULL;
  const auto it = objects_.find(manager);
  if (it == objects_.end() || it->second.kind != Object::Manager) return VI_ERROR_INV_OBJECT;
  if (name == nullptr) return VI_ERROR_RSRC_NFOUND;
  for (const auto &instrument : instruments_) {
    if (instrument->vanished() || !sameName(instrument->name(), name)) continue;
    Object object{Object::InstrumentSession, manager};
    object.session = std::make_shared<Session>();
    object.session->instrument = instrument;
    const ViObject id = newIdLocked();
    objects_.emplace(id, std::move(object));
    *vi = id;
    return VI_SUCCESS;
  }
  return VI_ERROR_RSRC_NFOUND;
}

ViStatus Runtime::close(ViObject vi) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(vi);
  if (it == objects_.end()) return VI_ERROR_INV_OBJECT;
  if (it->second.kind == Object::Manager) {
    // Closing a resource manager closes everything opened through it.
    std::erase_if(objects_, [vi](const auto &entry) {
      return entry.second.kind != Object::Manager && entry.second.manager == vi;
    });
  }
  objects_.erase(vi);
  return VI_SUCCESS;
}

std::shared_ptr<Session> Runtime::session(ViSession vi) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(vi);
  if (it == objects_.end() || it->second.kind != Object::InstrumentSession) return nullptr;
  return it->second.session;
}

const Bench &Runtime::bench() {
  std::lock_guard lock(mutex_);
  if (!loadLocked()) throw std::runtime_error(loadError_);
  return bench_;
}

void Runtime::replace(const Bench &bench) { replace(bench, bench); }

void Runtime::replace(const Bench &live, const Bench &described) {
  if (live.resources.size() != described.resources.size())
    throw std::invalid_argument("qbsim: live and described benches differ");
  std::lock_guard lock(mutex_);
  loaded_ = true;
  loadError_.clear();
  buildLocked(live, described);
}

Bench Runtime::liveBench() {
  std::lock_guard lock(mutex_);
  if (!loadLocked()) throw std::runtime_error(loadError_);
  Bench out = bench_;
  for (size_t i = 0; i < instruments_.size(); ++i) {
    Instrument &instrument = *instruments_[i];
    std::lock_guard instrumentLock(instrument.mutex());
    const ChassisFirmware *firmware = instrument.firmware();
    if (firmware == nullptr) continue;
    ChassisConfig &config = out.resources[i].chassis;
    config = firmware->state();
    config.closedRelays = firmware->closedRelays();
    config.groupsPerBoard = firmware->groupsPerBoard() != nominalGroupsPerBoard(config)
                                ? firmware->groupsPerBoard()
                                : 0;
  }
  return out;
}

void Runtime::resetInstrument(const std::string &name) {
  std::lock_guard lock(mutex_);
  if (!loadLocked()) throw std::runtime_error(loadError_);
  for (size_t i = 0; i < instruments_.size(); ++i) {
    if (!sameName(instruments_[i]->name(), name)) continue;
    const std::shared_ptr<Instrument> old = instruments_[i];
    std::erase_if(objects_, [&old](const auto &entry) {
      return entry.second.session && entry.second.session->instrument == old;
    });
    instruments_[i] = std::make_shared<Instrument>(bench_.resources[i]);
    return;
  }
  throw std::out_of_range("qbsim: no resource named " + name);
}

std::shared_ptr<Instrument> Runtime::instrument(const std::string &name) {
  std::lock_guard lock(mutex_);
  if (!loadLocked()) throw std::runtime_error(loadError_);
  for (const auto &instrument : instruments_)
    if (sameName(instrument->name(), name)) return instrument;
  throw std::out_of_range("qbsim: no resource named " + name);
}

}  // namespace qbsim::detail
