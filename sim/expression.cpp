// expression.cpp - parse a resource expression into a small tree, then match
// it by backtracking (names are short, so the simple approach is plenty).
#include "expression.hpp"

#include <cctype>
#include <functional>
#include <memory>
#include <vector>

namespace qbsim::detail {
namespace {

struct Alternatives;

struct Item {
  enum Kind { Literal, AnyOne, AnyRun, Class, Group } kind = Literal;
  char literal = 0;
  std::string list;  // Class: the characters
  bool negated = false;
  std::shared_ptr<Alternatives> group;
};

using Sequence = std::vector<Item>;

struct Alternatives {
  std::vector<Sequence> options;
};

char folded(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

class Parser {
 public:
  explicit Parser(const std::string &text) : text_(text) {}

  std::shared_ptr<Alternatives> parse() {
    auto top = alternatives();
    if (!top || pos_ != text_.size()) return nullptr;
    return top;
  }

 private:
  std::shared_ptr<Alternatives> alternatives() {
    auto alts = std::make_shared<Alternatives>();
    for (;;) {
      Sequence seq;
      if (!sequence(seq)) return nullptr;
      alts->options.push_back(std::move(seq));
      if (pos_ < text_.size() && text_[pos_] == '|') {
        ++pos_;
        continue;
      }
      return alts;
    }
  }

  bool sequence(Sequence &seq) {
    while (pos_ < text_.size() && text_[pos_] != '|' && text_[pos_] != ')') {
      const char c = text_[pos_++];
      Item item;
      item.kind = Item::Literal;
      switch (c) {
        case '?': item.kind = Item::AnyOne; break;
        case '*': item.kind = Item::AnyRun; break;
        case '\\':
          if (pos_ == text_.size()) return false;
          item.literal = folded(text_[pos_++]);
          break;
        case '[': {
          item.kind = Item::Class;
          if (pos_ < text_.size() && text_[pos_] == '^') {
            item.negated = true;
            ++pos_;
          }
          while (pos_ < text_.size() && text_[pos_] != ']') item.list += folded(text_[pos_++]);
          if (pos_ == text_.size() || item.list.empty()) return false;
          ++pos_;
          break;
        }
        case '(':
          item.kind = Item::Group;
          item.group = alternatives();
          if (!item.group || pos_ == text_.size() || text_[pos_] != ')') return false;
          ++pos_;
          break;
        case ']': return false;
        default: item.literal = folded(c); break;
      }
      seq.push_back(std::move(item));
    }
    // A ')' is only legal as the end of a group, which the caller checks.
    return true;
  }

  const std::string &text_;
  size_t pos_ = 0;
};

using Continuation = std::function<bool(size_t)>;

bool matchSequence(const Sequence &seq, size_t index, const std::string &name, size_t pos,
                   const Continuation &next);

bool matchAlternatives(const Alternatives &alts, const std::string &name, size_t pos,
                       const Continuation &next) {
  for (const auto &seq : alts.options)
    if (matchSequence(seq, 0, name, pos, next)) return true;
  return false;
}

bool matchSequence(const Sequence &seq, size_t index, const std::string &name, size_t pos,
                   const Continuation &next) {
  if (index == seq.size()) return next(pos);
  const Item &item = seq[index];
  const auto rest = [&](size_t p) { return matchSequence(seq, index + 1, name, p, next); };
  switch (item.kind) {
    case Item::Literal:
      return pos < name.size() && folded(name[pos]) == item.literal && rest(pos + 1);
    case Item::AnyOne: return pos < name.size() && rest(pos + 1);
    case Item::AnyRun:
      for (size_t p = pos; p <= name.size(); ++p)
        if (rest(p)) return true;
      return false;
    case Item::Class: {
      if (pos >= name.size()) return false;
      const char c = folded(name[pos]);
      bool listed = false;
      for (size_t i = 0; i < item.list.size() && !listed; ++i) {
        if (i + 2 < item.list.size() && item.list[i + 1] == '-') {
          listed = item.list[i] <= c && c <= item.list[i + 2];
          i += 2;
        } else {
          listed = item.list[i] == c;
        }
      }
      return listed != item.negated && rest(pos + 1);
    }
    case Item::Group: return matchAlternatives(*item.group, name, pos, rest);
  }
  return false;
}

}  // namespace

std::optional<bool> matchResourceExpression(const std::string &expression,
                                            const std::string &name) {
  const auto tree = Parser(expression).parse();
  if (!tree) return std::nullopt;
  return matchAlternatives(*tree, name, 0, [&](size_t p) { return p == name.size(); });
}

}  // namespace qbsim::detail
