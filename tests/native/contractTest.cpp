// What each native method returns, asks of the module and prints, as contract.txt states it.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>

#include "java.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

using scripted::script;

/// One block of contract.txt; what a row does not state is not checked.
struct Row {
  std::size_t line = 0;
  std::vector<std::pair<std::string, std::string>> calls;  // methods with arguments
  std::vector<std::string> given;
  std::map<std::string, std::string> expected;             // by keyword; repeated lines run on
  std::map<std::string, std::vector<std::size_t>> stated;  // on which lines
};

std::vector<std::string> lines;  // of contract.txt, from 1

std::vector<Row> readRows() {
  std::ifstream file(QUARVEL_CONTRACT);
  std::vector<Row> rows;
  lines = {""};
  for (std::string line; std::getline(file, line);) {
    const std::size_t number = lines.size();
    lines.push_back(line);
    if (line.empty() || line[0] == '#') continue;
    if (line[0] != ' ') {
      const std::size_t open = line.find('(');
      if (rows.empty() || !rows.back().expected.empty()) rows.push_back({number, {}, {}, {}, {}});
      rows.back().calls.emplace_back(
          line.substr(0, open), line.substr(open + 1, line.size() - open - 2));
      continue;
    }
    const std::size_t space = line.find(' ', 2);
    const std::string keyword = line.substr(2, space - 2);
    std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
    const char* text = rest.c_str();
    if (keyword == "given") {
      rows.back().given.push_back(rest);
    } else {
      rows.back().expected[keyword] += rest[0] == '"' ? unquote(&text) : rest;
      rows.back().stated[keyword].push_back(number);
    }
  }
  return rows;
}

/// Applies one "given NAME = VALUES": a field of the script, else the answer of a function.
void apply(const std::string& given, hooks::Run* run) {
  const std::string name = given.substr(0, given.find(' '));
  if (given == "no C_Logout") {
    scripted::list.C_Logout = nullptr;
    return;
  }
  if (given == "not initialised") {
    bridge::loaded = 0;
    return;
  }
  std::vector<CK_ULONG> values;
  const int base = name == "value" ? 16 : 0;
  const char* text = given.c_str() + given.find('=') + 1;
  for (char* end = nullptr;; text = end) {
    const CK_ULONG value = std::strtoul(text, &end, base);
    if (end == text) break;
    values.push_back(value);
  }
  const std::map<std::string, std::vector<CK_ULONG>*> lists = {
      {"slots", &script.slots},
      {"mechanisms", &script.mechanisms},
      {"found", &script.found},
      {"lies", &script.lies}};
  if (const auto list = lists.find(name); list != lists.end()) {
    *list->second = values;
  } else if (name == "value") {
    script.value.assign(values.begin(), values.end());
  } else if (name == "failingJni" || name == "failingHeap") {
    (name == "failingJni" ? run->failJni : run->failHeap) = values.at(0);
  } else {
    (name == "handle" ? script.handle : script.answers[name]) = values.at(0);
  }
}

/// With QUARVEL_UPDATE in the environment a row that expects something else is rewritten.
const bool updating = std::getenv("QUARVEL_UPDATE") != nullptr;

/// The lines that state `value`; what was printed is quoted, several short lines of it in one.
std::string statement(const std::string& keyword, const std::string& value) {
  if (keyword != "trace" && keyword != "always") return "  " + keyword + " " + value;
  const std::string open = "  " + keyword + " \"";
  std::string text = open;
  std::size_t begun = 0;  // where the last line of `text` starts
  for (std::size_t i = 0; i < value.size(); ++i) {
    const std::size_t size = value.find('\n', i) - i;  // of the printed line from here on
    if (i != 0 && value[i - 1] == '\n' && text.size() - begun + size > 97) {
      begun = text.size() + 2;
      text += "\"\n" + open;
    }
    const auto byte = static_cast<unsigned char>(value[i]);
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
    text += byte == '\n'                  ? "\\n"
            : byte == '"' || byte == '\\' ? std::string("\\") + value[i]
            : byte < 0x20 || byte > 0x7E  ? escaped
                                          : std::string(1, value[i]);
  }
  return text + "\"";
}

/// Replaces the lines that state `keyword`; the others of several stay empty and go.
void update(const Row& row, const std::string& keyword, const std::string& value) {
  const std::vector<std::size_t>& at = row.stated.at(keyword);
  for (const std::size_t line : at) lines[line] = "gone";
  lines[at.front()] = statement(keyword, value);
}

void check(const Row& row, const std::string& method, const std::string& arguments, int tracing) {
  SCOPED_TRACE(
      "contract.txt:" + std::to_string(row.line) + " " + method + (tracing != 0 ? " traced" : ""));
  freshModule();
  hooks::Run run;
  for (const std::string& given : row.given) apply(given, &run);
  debug = tracing;
  const Outcome outcome = call(method, arguments, std::move(run));
  shutModule();
  std::map<std::string, std::string> actual = {
      {"returns", outcome.result},
      {"module", join(outcome.moduleCalls, "; ")},
      {"arrays", join(outcome.arrays)},
      {"jni", std::to_string(outcome.run.jni.size())},
      {"code", outcome.code}};
  std::map<std::string, std::string> expected = row.expected;
  if (tracing == 0) expected["always"] += "";  // silence, unless the row says otherwise
  if (tracing != 0) expected.erase("always");
  if (tracing == 0) {
    expected.erase("trace");
    expected.erase("code");
  }
  for (const auto& [keyword, value] : expected) {
    const bool marked = value.find('<') != std::string::npos;
    actual["trace"] = actual["always"] = marked ? outcome.marked : outcome.output;
    if (updating && row.stated.contains(keyword) && actual[keyword] != value) {
      update(row, keyword, actual[keyword]);
    } else {
      EXPECT_EQ(actual[keyword], value) << keyword;
    }
  }
}

TEST(Contract, EveryRowOfTheTable) {
  std::set<std::string> offered;
  for (const Row& row : readRows()) {
    for (const auto& [method, arguments] : row.calls) {
      offered.insert(method);
      for (const int tracing : {0, 1}) check(row, method, arguments, tracing);
    }
  }
  if (updating) {
    std::ofstream file(QUARVEL_CONTRACT);
    for (std::size_t i = 1; i < lines.size(); ++i) {
      if (lines[i] != "gone") file << lines[i] << "\n";
    }
  }
  // What the table does not name is not offered: refused by message, the module not reached.
  for (const Method& method : methods()) {
    EXPECT_NE(method.refused, offered.contains(method.name)) << method.name;
    if (!method.refused) continue;
    const bool yet = method.name == "Session.signUpdate" || method.name == "Session.signFinal";
    const Outcome outcome = call(method.name, join(goodArguments(method)));
    EXPECT_EQ(outcome.result, failureValue(method) + " ! Not supported" + (yet ? " YET" : ""))
        << method.name;
    EXPECT_EQ(outcome.run.jni.size(), 2u) << method.name;  // FindClass, ThrowNew
    EXPECT_EQ(join(outcome.moduleCalls), "") << method.name;
  }
}

}  // namespace
