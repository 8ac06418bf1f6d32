// What each native method returns, asks of the module and prints, as contract.txt states it.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>

#include "java.h"
#include "trace.h"

namespace {

using scripted::script;

/// One call of contract.txt; what a row does not state is not checked.
struct Row {
  std::size_t line = 0;
  std::string method, arguments;
  std::vector<std::string> given;
  std::map<std::string, std::string> expected;  // by keyword; repeated lines one after the other
};

std::vector<Row> readRows() {
  std::ifstream file(QUARVEL_CONTRACT);
  std::vector<Row> rows;
  std::size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    if (line[0] != ' ') {
      const std::size_t open = line.find('(');
      rows.push_back(
          {number, line.substr(0, open), line.substr(open + 1, line.size() - open - 2), {}, {}});
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
    }
  }
  return rows;
}

/// Applies one "given NAME = VALUES": a field of the script, else the answer of a function.
void apply(const std::string& given) {
  const std::string name = given.substr(0, given.find(' '));
  if (given == "no C_Logout") {
    scripted::list.C_Logout = nullptr;
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
  const std::map<std::string, std::vector<CK_ULONG>*> lists = {{"slots", &script.slots},
                                                               {"mechanisms", &script.mechanisms},
                                                               {"found", &script.found},
                                                               {"lies", &script.lies}};
  if (const auto list = lists.find(name); list != lists.end()) {
    *list->second = values;
  } else if (name == "value") {
    script.value.assign(values.begin(), values.end());
  } else {
    (name == "handle" ? script.handle : script.answers[name]) = values.at(0);
  }
}

void check(const Row& row, int tracing) {
  SCOPED_TRACE("contract.txt:" + std::to_string(row.line) + (tracing != 0 ? " traced" : ""));
  freshModule();
  for (const std::string& given : row.given) apply(given);
  debug = tracing;
  const Outcome outcome = call(row.method, row.arguments);
  shutModule();
  std::map<std::string, std::string> actual = {{"returns", outcome.result},
                                               {"module", join(outcome.moduleCalls, "; ")},
                                               {"arrays", join(outcome.arrays)},
                                               {"jni", std::to_string(outcome.run.jni.size())},
                                               {tracing != 0 ? "trace" : "always", outcome.output}};
  std::map<std::string, std::string> expected = row.expected;
  if (tracing == 0) expected["always"] += "";  // silence, unless the row says otherwise
  expected.erase(tracing != 0 ? "always" : "trace");
  for (const auto& [keyword, value] : expected) EXPECT_EQ(actual[keyword], value) << keyword;
}

TEST(Contract, EveryRowOfTheTable) {
  std::set<std::string> offered;
  for (const Row& row : readRows()) {
    offered.insert(row.method);
    for (const int tracing : {0, 1}) check(row, tracing);
  }
  // What the table does not name is not offered: refused by message, the module not reached.
  EXPECT_EQ(methods().size() - offered.size(), 33u);
  for (const Method& method : methods()) {
    if (offered.contains(method.name)) continue;
    const bool yet = method.name == "Session.signUpdate" || method.name == "Session.signFinal";
    const std::map<char, std::string> failures = {
        {'V', "void"}, {'Z', "false"}, {'I', yet ? "-1" : "0"}, {'B', "null"}, {'L', "null"}};
    const Outcome outcome = call(method.name, join(goodArguments(method)));
    EXPECT_EQ(outcome.result, failures.at(method.result) + " ! Not supported" + (yet ? " YET" : ""))
        << method.name;
    EXPECT_EQ(outcome.run.jni.size(), 2u) << method.name;  // FindClass, ThrowNew
    EXPECT_EQ(join(outcome.moduleCalls), "") << method.name;
  }
}

}  // namespace
