#include "commands.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <utility>

#include <qbvisa.h>
#include <qbvisa_lowlevel.h>

#include "point_list.hpp"
#include "tool_error.hpp"

namespace qbtool {

namespace {

std::string boundedText(const char *text, size_t size) {
  return std::string(text, strnlen(text, size));
}

std::string modelOf(uint16_t typeCode, const std::string &idnModel) {
  const char *name = modelName(typeCode);
  return name != nullptr ? name : idnModel.empty() ? "?" : idnModel;
}

std::string modelOf(const ChassisRecord &record) {
  return modelOf(record.modelTypeCode,
                 boundedText(record.modelName, sizeof record.modelName));
}

void printTable(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows)
    for (size_t i = 0; i < row.size(); ++i) {
      widths.resize(std::max(widths.size(), row.size()));
      widths[i] = std::max(widths[i], row[i].size());
    }
  for (const auto &row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    std::cout << line << '\n';
  }
}

// A query that the model may refuse: its text, or "n/a (<message>)".
std::string orRefusal(const std::function<std::string()> &query) {
  try {
    return query();
  } catch (const ToolError &refused) {
    return "n/a (" + libraryMessage(refused.code()) + ")";
  }
}

// The 10-byte text slots the version calls fill, up to the first empty one.
std::vector<std::string> textSlots(const std::vector<char> &buffer, size_t most) {
  std::vector<std::string> texts;
  for (size_t i = 0; i < most && (i + 1) * 10 <= buffer.size(); ++i) {
    std::string text = boundedText(buffer.data() + i * 10, 10);
    if (text.empty()) break;
    texts.push_back(text);
  }
  return texts;
}

std::string joined(const std::vector<std::string> &texts, const char *separator) {
  std::string out;
  for (const auto &text : texts) {
    if (!out.empty()) out += separator;
    out += text;
  }
  return out;
}

uint32_t parseUnsigned(const std::string &text, const char *what) {
  uint32_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size())
    throw UsageError(std::string(what) + " '" + text + "' is not a number");
  return value;
}

std::string counted(long count, const std::string &noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string subMatrixCount(int count) {
  return std::to_string(count) + (count == 1 ? " sub-matrix" : " sub-matrices");
}

// "ROW!COLUMN" of a switching-array bit.
std::string pointName(const Geometry &geometry, size_t p) {
  const int index = static_cast<int>(p);
  return std::to_string(index / geometry.columns() + 1) + "!" +
         std::to_string(index % geometry.columns() + 1);
}

std::string lowered(std::string text) {
  for (auto &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The closed count, the relay count against the model's closure limit, and
// where the knowledge comes from.
void printStateSummary(const Geometry &geometry, const MatrixState &state) {
  std::cout << "closed crosspoints: " << state.closedCount() << '\n';
  if (!state.readBack) {
    std::cout << "closed relays: cannot be read back through this VISA; shown is "
                 "what this process switched\n";
    return;
  }
  std::cout << "closed relays: " << state.relayCount.value_or(0);
  if (const auto limit = closureLimit(geometry.modelType))
    std::cout << " of at most " << *limit << '\n';
  else
    std::cout << " (no closure limit on this model)\n";
}

}  // namespace

void scan(Bench &bench) {
  QBVISA_ResourceEntry list[QBVISA_RECORD_COUNT] = {};
  uint32_t count = 0;
  const int32_t status = QBVISA_FindRsrc(list, &count);
  bench.forget();  // discovery hands out new sessions
  // An unknown model stops discovery: the chassis found before it are
  // registered, but only their records say which they are.
  if (status < 0 && status != QBVISA_ERR_NOT_SUPPORTED) throw ToolError(status);
  const uint32_t listed = std::min<uint32_t>(count, QBVISA_RECORD_COUNT);
  std::vector<std::vector<std::string>> rows = {{"RESOURCE", "MODEL", "TYPE"}};
  for (uint32_t i = 0; i < listed; ++i) {
    const ChassisRecord &record = globalChassisInfo[i];
    const std::string resource =
        status == 0 ? boundedText(list[i].resourceName, sizeof list[i].resourceName)
                    : boundedText(record.resourceName, sizeof record.resourceName);
    const uint16_t type = status == 0 ? list[i].typeCode : record.reportedTypeCode;
    rows.push_back({resource,
                    modelOf(type, boundedText(record.modelName, sizeof record.modelName)),
                    std::to_string(type)});
  }
  if (listed == 0)
    std::cout << "no chassis found\n";
  else
    printTable(rows);
  if (count > QBVISA_USABLE_RECORDS)
    std::cout << "only the first " << QBVISA_USABLE_RECORDS
              << " chassis can be used in one process\n";
  if (status < 0)
    throw ToolError(status, "discovery stopped at an instrument of unknown model");
}

void open(Bench &bench, const std::string &resource, uint64_t slot) {
  const uint64_t opened = bench.openSlot(resource, slot);
  const ChassisRecord &record = bench.record(resource);
  std::cout << modelOf(record) << " " << resource << " slot " << opened << '\n';
  if (opened == 0) {
    const Geometry geometry = bench.matrix(resource);
    std::vector<std::string> boards;
    for (int n = 0; n < geometry.subMatrices; ++n)
      if (geometry.subMatrixBoard[n] >= 0)
        boards.push_back(std::to_string(geometry.subMatrixBoard[n]));
    printTable({{"  matrix", std::to_string(geometry.rows) + " rows x " +
                                 std::to_string(geometry.columns()) + " columns, " +
                                 std::to_string(geometry.points()) + " crosspoints"},
                {"  sub-matrices", std::to_string(geometry.subMatrices) + " of " +
                                       std::to_string(geometry.subColumns) + " columns, " +
                                       std::to_string(boards.size()) +
                                       " fitted, on boards " + joined(boards, " ")},
                {"  relay frame", std::to_string(record.slots[0].groupCount) +
                                      " boards x " +
                                      std::to_string(geometry.wordsPerGroup) + " words"}});
  } else {
    const SlotArea &card = record.slots[opened];
    char name[16] = {}, size[16] = {};
    check(QBVISA_GetCardType(bench.session(resource), static_cast<uint32_t>(opened), name));
    QBVISA_GetCardSize(name, size);
    printTable({{"  card", std::string(name) + ", " + size},
                {"  matrix", std::to_string(card.rowCount) + " rows x " +
                                 std::to_string(card.columnCount) + " columns, " +
                                 std::to_string(card.pointCount) + " points"}});
  }
  bench.initialise(resource, opened);
  std::cout << "  initialised: every relay of the slot open\n";
}

void change(Bench &bench, const std::string &resource,
            const std::vector<std::string> &closeWords,
            const std::vector<std::string> &openWords) {
  const Geometry geometry = bench.matrix(resource);
  const MatrixState now = bench.state(resource);
  std::vector<bool> toClose(now.closed.size(), false), toOpen(now.closed.size(), false);
  if (!closeWords.empty()) bench.mark(geometry, parsePointList(closeWords), toClose, true);
  if (!openWords.empty()) bench.mark(geometry, parsePointList(openWords), toOpen, true);
  std::vector<bool> wanted = now.closed;
  int closing = 0, opening = 0;
  for (size_t p = 0; p < wanted.size(); ++p) {
    if (toClose[p] && toOpen[p])
      throw ToolError(QBVISA_ERR_POINT_DEFINITION,
                      "point " + pointName(geometry, p) + " is to be both closed and opened");
    if (toClose[p] && !wanted[p]) ++closing, wanted[p] = true;
    if (toOpen[p] && wanted[p]) ++opening, wanted[p] = false;
  }
  bench.apply(resource, wanted);
  const auto report = [&](long closedNow) {
    std::cout << resource << ": " << closing << " to close, " << opening << " to open; "
              << counted(closedNow, "crosspoint") << " closed now\n";
  };
  if (!now.readBack) {
    report(std::count(wanted.begin(), wanted.end(), true));
    static bool told = false;  // once per process is enough
    if (!std::exchange(told, true))
      std::cout << "(the relays cannot be read back through this VISA: crosspoints "
                   "not switched by this process are open now)\n";
    return;
  }
  // The library may accept a frame that leaves points out; say what the
  // chassis really holds.
  const MatrixState after = bench.state(resource);
  report(after.closedCount());
  std::vector<std::string> differing;
  for (size_t p = 0; p < wanted.size(); ++p)
    if (after.closed[p] != wanted[p])
      differing.push_back(pointName(geometry, p) + (wanted[p] ? " open" : " closed"));
  if (!differing.empty()) {
    const size_t listed = std::min<size_t>(differing.size(), 8);
    std::cout.flush();
    std::cerr << "warning: the chassis does not hold " << differing.size()
              << " of the wanted crosspoint states: "
              << joined({differing.begin(), differing.begin() + static_cast<long>(listed)}, ", ")
              << (listed < differing.size() ? ", ..." : "") << '\n';
  }
}

void clear(Bench &bench, const std::string &resource) {
  bench.clear(resource);
  std::cout << resource << ": every relay open\n";
}

void show(Bench &bench, const std::string &resource, const PictureOptions &options) {
  const Geometry geometry = bench.matrix(resource);
  const MatrixState state = bench.state(resource);
  std::cout << modelOf(bench.record(resource)) << " " << resource << ": "
            << geometry.rows << " rows x " << geometry.columns() << " columns ("
            << subMatrixCount(geometry.subMatrices) << " of " << geometry.subColumns
            << " columns), X = closed\n";
  std::cout << drawMatrix(geometry, state.closed, options);
  printStateSummary(geometry, state);
}

void info(Bench &bench, const std::string &resource) {
  const uint32_t session = bench.session(resource);
  const Geometry geometry = bench.matrix(resource);
  ChassisRecord &record = bench.record(resource);
  const uint16_t type = record.modelTypeCode;
  const int slots = record.slotCount;
  std::vector<std::vector<std::string>> lines;
  auto line = [&](const std::string &label, const std::string &value) {
    lines.push_back({"  " + label, value});
  };

  char hexType[8];
  std::snprintf(hexType, sizeof hexType, "%04X", type);
  line("model", modelOf(record) + ", type code " + std::to_string(type) + " (" +
                    hexType + ")");
  line("identity", orRefusal([&] {
         char typeText[16] = {}, chars[16] = {}, serial[16] = {}, version[16] = {};
         check(QBVISA_GetDeviceInfo(session, typeText, chars, serial, version, 10));
         return std::string(typeText) + " " + chars + ", serial " +
                std::string(serial + std::strspn(serial, " ")) + ", firmware " + version;
       }));
  line("serial numbers", orRefusal([&] {
         // The library copies at most 30 entries: the chassis and 29 cards.
         std::vector<uint32_t> serials(static_cast<size_t>(std::min(slots + 1, 30)), 0);
         check(QBVISA_GetSN(session, serials.data(), serials.size()));
         std::vector<std::string> cards;
         for (size_t k = 1; k < serials.size(); ++k)
           if (serials[k] != 0)
             cards.push_back("card " + std::to_string(k) + " " + std::to_string(serials[k]));
         return "chassis " + std::to_string(serials[0]) + ", " +
                (cards.empty() ? std::string("no card serial set") : joined(cards, ", "));
       }));
  line("firmware", orRefusal([&] {
         // Reply pairs from byte 2 of a 400-byte reply: at most 199 texts.
         std::vector<char> texts(2000, 0);
         check(QBVISA_GetSWVersion(session, texts.data(), 200));
         const auto versions = textSlots(texts, 200);
         if (hasTwoControllers(type) && versions.size() == 2)
           return "controller " + versions[0] + ", communication board " + versions[1];
         return versions.empty() ? std::string("none reported") : joined(versions, ", ");
       }));
  line("hardware", orRefusal([&] {
         std::vector<char> texts(static_cast<size_t>(slots + 1) * 10, 0);
         check(QBVISA_GetHWVersion(session, texts.data(), static_cast<uint64_t>(slots) + 1));
         const auto versions = textSlots(texts, static_cast<size_t>(slots) + 1);
         if (versions.empty()) return std::string("none reported");
         return "chassis " + versions[0] +
                (versions.size() > 1
                     ? ", cards " + joined({versions.begin() + 1, versions.end()}, " ")
                     : std::string());
       }));
  line("matrix", std::to_string(geometry.rows) + " rows x " +
                     std::to_string(geometry.columns()) + " columns in " +
                     subMatrixCount(geometry.subMatrices));
  auto cardOf = [&](uint32_t slot) {
    return orRefusal([&] {
      if (slot > 0) {
        uint64_t opened = 0;
        check(QBVISA_OpenSpecifiedCard(session, slot, &opened));
      }
      char name[16] = {}, size[16] = {};
      check(QBVISA_GetCardType(session, slot, name));
      check(QBVISA_GetCardSize(name, size));
      return std::string(name) + ", " + size;
    });
  };
  line("slot 0 card", cardOf(0));
  if (takesCards(type)) {
    line("slot 1 card", cardOf(1));
    line("slot 2 card", cardOf(2));
  }
  line("control mode", orRefusal([&] {
         uint32_t mode = 0;
         check(QBVISA_GetControlMode(session, &mode));
         return std::string(mode == 0 ? "local" : "remote");
       }));
  line("IP address", orRefusal([&] {
         char text[32] = {};
         check(QBVISA_GetCOMMIPAddr(session, text));
         return std::string(text);
       }));
  line("LAN mode", orRefusal([&] {
         uint32_t mode = 0;
         check(QBVISA_GetLANMode(session, &mode));
         return mode == 0 ? std::string("manual IP")
                          : mode == 1 ? std::string("automatic IP") : std::to_string(mode);
       }));
  line("GPIB address", orRefusal([&] {
         uint32_t address = 0;
         check(QBVISA_GetGPIBAddress(session, &address));
         return std::to_string(address);
       }));
  line("baud rate", orRefusal([&] {
         uint32_t rate = 0;
         check(QBVISA_GetBaudRate(session, &rate));
         return std::to_string(rate);
       }));
  std::cout << resource << '\n';
  printTable(lines);
}

const std::vector<std::string> &settingNames() {
  static const std::vector<std::string> names = {
      "ip", "lan-mode", "gpib", "baud", "control-mode", "sn", "card-sn"};
  return names;
}

void set(Bench &bench, const std::string &resource, const std::string &setting,
         const std::vector<std::string> &values) {
  const size_t wanted = setting == "sn" ? 2 : setting == "card-sn" ? 3 : 1;
  if (values.size() != wanted)
    throw UsageError("'" + setting + "' takes " + std::to_string(wanted) +
                     (wanted == 1 ? " value" : " values"));
  const uint32_t session = bench.session(resource);
  const std::string &value = values[0];
  std::string done;
  if (setting == "ip") {
    check(QBVISA_SetIPAddress(session, value.c_str()), resource);
    done = "IP address set to " + value;
  } else if (setting == "lan-mode") {
    const std::string mode = lowered(value);
    const uint32_t code = mode == "manual" ? 0 : mode == "auto" ? 1
                                                                : parseUnsigned(value, "LAN mode");
    check(QBVISA_SetLANMode(session, code), resource);
    done = std::string("LAN mode set to ") + (code == 0 ? "manual IP" : "automatic IP");
  } else if (setting == "gpib") {
    check(QBVISA_SetGPIBAddress(session, parseUnsigned(value, "GPIB address")), resource);
    done = "GPIB address set to " + value;
  } else if (setting == "baud") {
    check(QBVISA_SetBaudRate(session, parseUnsigned(value, "baud rate")), resource);
    done = "baud rate set to " + value;
  } else if (setting == "control-mode") {
    const std::string mode = lowered(value);
    const uint32_t code = mode == "local" ? 0 : mode == "remote" ? 1
                                                                 : parseUnsigned(value, "control mode");
    check(QBVISA_SetControlMode(session, code), resource);
    done = std::string("control mode set to ") + (code == 0 ? "local" : "remote");
  } else if (setting == "sn") {
    check(QBVISA_SetSN(session, values[0].c_str(), values[1].c_str()), resource);
    done = "chassis serial number set to " + values[0];
  } else if (setting == "card-sn") {
    const uint32_t slot = parseUnsigned(values[0], "slot");
    check(QBVISA_SetCardSN(session, values[1].c_str(), values[2].c_str(),
                           static_cast<int32_t>(std::min<uint32_t>(slot, INT32_MAX))),
          resource);
    done = "serial number of card " + values[0] + " set to " + values[1];
  } else {
    throw UsageError("unknown setting '" + setting + "'");
  }
  std::cout << resource << ": " << done << '\n';
}

void update(Bench &bench, const std::string &resource, const std::string &file) {
  check(QBVISA_OnlineUpdate(bench.session(resource), file.c_str()), file);
  std::cout << resource << ": firmware image " << file << " accepted\n";
}

}  // namespace qbtool
