// The simulated bench at the VISA level, run from tests/data/sim_visa.txt
// ("> " a call, below it what the bench did), so one wrong byte on the wire
// shows. What the library's own tests drive end to end is not repeated.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "golden.hpp"
#include "qbsim.hpp"
#include "visa_api.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string name(ViStatus s) {
  static const std::map<ViStatus, std::string> names = {
      {VI_SUCCESS, "ok"}, {VI_ERROR_TMO, "TMO"}, {VI_ERROR_IO, "IO"}, {VI_ERROR_CONN_LOST, "CONN_LOST"},
      {VI_ERROR_RSRC_NFOUND, "RSRC_NFOUND"}, {VI_ERROR_INV_EXPR, "INV_EXPR"},
      {VI_ERROR_NSUP_ATTR_STATE, "NSUP_ATTR_STATE"}, {VI_SUCCESS_TERM_CHAR, "TERM_CHAR"}, {VI_SUCCESS_MAX_CNT, "MAX_CNT"}};
  return names.count(s) ? names.at(s) : std::to_string(s);
}

// "text" with \n, or a frame: f COMMAND LENGTH WORD... (WORD*N repeats it).
Bytes request(std::istream &in) {
  std::string kind;
  in >> kind;
  if (kind != "f") {
    std::string rest, text = kind;
    std::getline(in, rest);
    text = (text + rest).substr(1, text.size() + rest.size() - 2);
    for (size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, "\n");
    return Bytes(text.begin(), text.end());
  }
  Bytes out;
  for (std::string word; in >> word;) {
    const size_t star = word.find('*');
    const auto value = std::stoul(word.substr(0, star), nullptr, 0);
    for (int n = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1)); n > 0; --n)
      out.insert(out.end(), {uint8_t(value), uint8_t(value >> 8)});
  }
  return out;
}

// Printable replies as text, others as hex bytes.
std::string show(const Bytes &b) {
  std::string text = "\"", hex;
  for (uint8_t c : b) {
    char byte[4];
    std::snprintf(byte, sizeof byte, " %02X", c);
    hex += byte;
    text += c == '\n' ? std::string("\\n") : c >= 32 && c < 127 ? std::string(1, char(c)) : "\x01";
  }
  return b.empty() ? " -" : text.find('\x01') == std::string::npos ? " " + text + "\"" : hex;
}

class Script {
 public:
  Script() {
    qbsim::Bench bench = qbsim::defaultBench();  // plus three resources that never answer
    for (const char *silent : {"GPIB0::INTFC", "VXI0::1::INSTR", "ASRL12::INSTR"})
      bench.resources.push_back({silent, qbsim::ResourceKind::Silent, {}, {}});
    qbsim::setBench(bench);
    EXPECT_EQ(viOpenDefaultRM(&rm_), VI_SUCCESS);
  }
  ~Script() { viClose(rm_); }

  // Runs one call and appends what happened to `out`.
  void run(const std::string &line, std::ostream &out) {
    std::istringstream in(line);
    std::string op, arg;
    in >> op;
    ViUInt32 count = 0;
    if (op == "open") {
      in >> resource_;
      out << name(viOpen(rm_, resource_.c_str(), 0, 0, &vi_));
    } else if (op == "x" || op == "w") {  // exchange, or write only
      const Bytes bytes = request(in);
      out << "w:" << name(viWrite(vi_, bytes.data(), ViUInt32(bytes.size()), &count));
      if (op == "x") out << " r:" << read(out);
    } else if (op == "r") {
      out << read(out);
    } else if (op == "find") {
      in >> arg;
      find(arg, out);
    } else if (op == "baud" || op == "tmo") {
      in >> count;
      out << name(viSetAttribute(vi_, op == "baud" ? VI_ATTR_ASRL_BAUD : VI_ATTR_TMO_VALUE, count));
    } else if (op == "endin-none") {
      out << name(viSetAttribute(vi_, VI_ATTR_ASRL_END_IN, VI_ASRL_END_NONE));
    } else if (op == "flush") {
      out << name(viFlush(vi_, VI_READ_BUF_DISCARD));
    } else if (op == "close") {
      out << name(viClose(vi_));
    } else if (op == "fault") {  // by the name bindings use; here, or on a named resource
      std::string other;
      in >> arg >> other;
      out << (other.empty() ? qbsim_inject_fault(resource_.c_str(), arg.c_str())
                            : qbsim_inject_fault(arg.c_str(), other.c_str()));
    } else if (op == "load" || op == "load-file") {  // the entry points bindings call
      char error[160] = "";
      std::getline(in >> std::ws, arg);
      const int status = op == "load" ? qbsim_load_bench_json(arg.c_str(), error, sizeof error)
                                      : qbsim_load_bench_file(arg.c_str(), nullptr, 0);  // no room for why
      out << status << " " << qbsim::currentBench().resources.size() << " " << error;
    } else if (op == "reset" || op == "default") {  // both close every session
      out << (op == "reset" ? qbsim_reset() : qbsim_use_default_bench()) << " "
          << name(viOpenDefaultRM(&rm_)) << " " << qbsim::currentBench().resources.size();
    } else if (op == "bench") {
      std::vector<char> json(qbsim_bench_json(nullptr, 0) + 1);
      const bool whole = qbsim_bench_json(json.data(), int(json.size())) == int(json.size()) - 1;
      out << (whole ? "whole, " : "cut, ") << qbsim::parseBench(json.data()).resources.at(0).name;
    } else if (op == "gpib") {
      out << int(qbsim::chassisState(resource_).gpibAddress);
    } else if (op == "relays") {
      for (const auto &r : qbsim::closedRelays(resource_)) out << " " << r.board << "." << r.group << "." << r.bit;
    } else if (op == "hook") {  // the C read-back with room for N triples
      std::vector<int32_t> triples(12, -1);
      in >> arg >> count;
      out << qbsim_closed_relays(arg.c_str(), triples.data(), int(count)) << ":";
      for (int32_t t : triples) out << " " << t;
    } else if (op == "parse") {
      std::getline(in >> std::ws, arg);
      try {
        const size_t resources = qbsim::parseBench(arg).resources.size();
        out << "read " << resources;
      } catch (const std::runtime_error &e) {
        out << "refused: " << e.what();
      }
    } else {
      ADD_FAILURE() << "unknown call " << line;
    }
  }

 private:
  std::string read(std::ostream &out) {
    ViUInt32 count = 0;
    Bytes reply(400);
    const ViStatus status = viRead(vi_, reply.data(), 400, &count);
    reply.resize(count);
    out << name(status);
    return show(reply);
  }
  void find(const std::string &expression, std::ostream &out) {
    ViFindList list = VI_NULL;
    ViUInt32 count = 0;
    char desc[VI_FIND_BUFLEN] = {};
    const ViStatus status = viFindRsrc(rm_, expression.c_str(), &list, &count, desc);
    out << name(status);
    if (status < 0) return;
    for (ViUInt32 n = 1; n <= count; ++n) {
      out << " " << desc;
      EXPECT_EQ(viFindNext(list, desc), n < count ? VI_SUCCESS : VI_ERROR_RSRC_NFOUND);
    }
    viClose(list);
  }

  ViSession rm_ = VI_NULL, vi_ = VI_NULL;
  std::string resource_;
};

TEST(SimVisa, ScriptMatchesTheReviewedTranscript) {
  std::ifstream script(QBVISA_TEST_DATA "/sim_visa.txt");
  std::vector<std::string> seen;  // each call, then what the bench did
  Script bench;
  for (std::string line; std::getline(script, line);) {
    if (line.rfind("> ", 0) == 0) {
      std::ostringstream out;
      bench.run(line.substr(2), out << "  ");
      seen.insert(seen.end(), {line, out.str()});
    } else if (line.rfind("  ", 0) != 0 && line.rfind("#", 0) != 0) {
      seen.push_back(line);  // blank lines
    }
  }
  qbgolden::expectGolden("sim_visa.txt", seen);
}

std::string benchDir() {
  return (std::filesystem::path(__FILE__).parent_path().parent_path() / "sim" / "benches").string();
}

TEST(BenchFile, RoundTripsAndShipsTheDefault) {
  const std::string json = qbsim::benchToJson(qbsim::defaultBench());
  EXPECT_EQ(qbsim::benchToJson(qbsim::parseBench(json)), json);
  EXPECT_EQ(qbsim::benchToJson(qbsim::loadBenchFile(benchDir() + "/default.json")), json);
  for (const char *name : {"six-chassis.json", "serial-rates.json", "mixed.json"})
    EXPECT_NO_THROW(qbsim::loadBenchFile(benchDir() + "/" + name)) << name;
  // Every chassis field is optional.
  const qbsim::Bench minimal =
      qbsim::parseBench(R"({"version": 1, "resources": [{"name": "ASRL4::INSTR"}]})");
  EXPECT_EQ(minimal.resources.at(0).kind, qbsim::ResourceKind::Chassis);
  EXPECT_EQ(minimal.resources[0].chassis.baudRate, 115200u);
  EXPECT_THROW(qbsim::loadBenchFile("/nonexistent/bench.json"), std::runtime_error);
}

// A bench file named by QBSIM_BENCH that cannot be read fails the first use
// (the tool tests read a good one). The case runs in a freshly started copy
// of this program, so nothing has loaded a bench yet.
TEST(BenchFileDeathTest, EnvironmentNamesTheBenchFile) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto firstUse = [](const std::string &path) {
    setenv("QBSIM_BENCH", path.c_str(), 1);
    ViSession rm = VI_NULL;
    const ViStatus status = viOpenDefaultRM(&rm);
    if (status != VI_SUCCESS) std::exit(status == VI_ERROR_SYSTEM_ERROR ? 3 : 1);
    std::exit(static_cast<int>(qbsim::currentBench().resources.size()));
  };
  EXPECT_EXIT(firstUse(benchDir() + "/missing.json"), ::testing::ExitedWithCode(3), "missing.json");
}

}  // namespace
