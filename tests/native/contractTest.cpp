// SPDX-License-Identifier: Apache-2.0
// What each native method returns, asks of the module and prints, as contract.txt states it.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <map>
#include <set>
#include <sstream>

#include "call.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

using scripted::script;

using Texts = std::vector<std::string>;

struct Statement {
  std::string text;      // repeated ones, which stand together, run on
  std::size_t at, size;  // in the table
};

/// One block of the table; what a row does not state is not checked.
struct Row {
  std::vector<std::pair<std::string, std::string>> calls;  // methods with arguments
  std::vector<std::pair<std::string, Texts>> given;        // names with alternative values
  std::map<std::string, Statement> expected;               // by keyword
};

Texts split(const std::string& text, const std::string& between) {
  Texts parts;
  for (std::size_t at = 0, next = 0; next != std::string::npos; at = next + between.size()) {
    next = text.find(between, at);
    parts.push_back(text.substr(at, next - at));
  }
  return parts;
}

void addCalls(Row* row, const std::string& text) {
  const std::size_t dot = text.find('.') + 1;
  const std::size_t open = text.find('(');
  for (const std::string& name : split(text.substr(dot, open - dot), ",")) {
    row->calls.emplace_back(
        text.substr(0, dot) + name, text.substr(open + 1, text.size() - open - 2));
  }
}

void addStatement(Row* row, const std::string& text, std::size_t at) {
  const std::string keyword = text.substr(0, text.find(' '));
  std::string rest = text.substr(std::min(keyword.size() + 1, text.size()));
  if (keyword == "given") {
    const std::size_t equals = rest.find(" =");
    row->given.emplace_back(rest.substr(0, equals), split(rest.substr(equals + 2), " / "));
  } else {
    if (rest[0] == '"') rest = rest.substr(1, rest.size() - 2);
    Statement& statement = row->expected.try_emplace(keyword, "", at, 0).first->second;
    statement.text += rest;
    statement.size = at + text.size() - statement.at;
  }
}

std::vector<Row> readRows(const std::string& table) {
  std::vector<Row> rows;
  std::size_t begin = 0;
  for (const std::string& line : split(table, "\n")) {
    std::size_t at = begin;
    begin += line.size() + 1;
    if (line.empty() || line[0] == '#') continue;
    for (const std::string& part : split(line, " | ")) {
      if (line[0] == ' ' || at != begin - line.size() - 1) {
        const std::size_t indent = part.find_first_not_of(' ');
        addStatement(&rows.back(), part.substr(indent), at + indent);
      } else {
        if (rows.empty() || !rows.back().expected.empty()) rows.emplace_back();
        addCalls(&rows.back(), part);
      }
      at += part.size() + 3;
    }
  }
  return rows;
}

/// Sets what a condition names: a field of the script or of the run, else the answer of a function.
void apply(const std::string& name, const std::string& text, hooks::Run* run) {
  std::vector<CK_ULONG> values;
  std::istringstream texts(text);
  texts >> std::setbase(name == "value" ? 16 : 0);
  for (CK_ULONG value; texts >> value;) values.push_back(value);
  const std::map<std::string, std::vector<CK_ULONG>*> lists = {
      {"slots", &script.slots},
      {"mechanisms", &script.mechanisms},
      {"found", &script.found},
      {"lies", &script.lies}};
  const std::map<std::string, CK_ULONG*> numbers = {
      {"handle", &script.handle}, {"failingJni", &run->failJni}, {"failingHeap", &run->failHeap}};
  if (lists.contains(name)) {
    *lists.at(name) = values;
  } else if (name == "value") {
    script.value.assign(values.begin(), values.end());
  } else {
    (numbers.contains(name) ? *numbers.at(name) : script.answers[name]) = values.at(0);
  }
}

/// A text in the forms of the table, for a call that raised the exception.
/// @param name the method's, where @ stands for it, else empty
std::string inTable(std::string text, const std::string& exception, const std::string& name) {
  std::string raised = "vendor defined exc '" + exception + "'...";
  if (const std::size_t code = exception.find("(0x"); code != std::string::npos) {
    raised = "exc number " + exception.substr(code + 3, exception.size() - code - 4) + "...";
    std::transform(raised.begin(), raised.end(), raised.begin(), ::tolower);
  }
  std::vector<std::pair<std::string, std::string>> forms = {
      {"JNI: Throwing " + raised + " Done\n", "$!"},
      {"JNI: Throwing " + raised + "<raise> Done\n", "$!"},
      {"JNI:BRIDGE: Calling C_", "$C_"},
      {"JNI: start PKCS11", "$"},
      {"\n", "\\n"},
      {"\x01", "\\x01"},
      {"\xE0 non", "\\xE0 non"}};
  if (!name.empty()) {
    forms.emplace_back("C_" + name, "C_@");
    forms.back().first[2] = static_cast<char>(std::toupper(name[0]));
    forms.emplace_back(name, "@");
  }
  for (const auto& [form, shortForm] : forms) text = join(split(text, form), shortForm.c_str());
  return text;
}

/// Whether a text is as stated, where "…" stands for anything.
bool agrees(const std::string& text, const std::string& stated) {
  const Texts parts = split(stated, "…");
  if (parts.size() == 1) return text == stated;
  std::size_t at = 0;
  for (const std::string& part : parts) {
    at = text.find(part, at);
    if (at == std::string::npos) return false;
    at += part.size();
  }
  return text.starts_with(parts.front()) && text.ends_with(parts.back());
}

/// With QUARVEL_UPDATE in the environment a statement of something else is rewritten.
const bool updating = std::getenv("QUARVEL_UPDATE") != nullptr;
std::map<std::size_t, std::pair<std::size_t, std::string>, std::greater<>> changes;  // last first

/// A text as it is stated: in quotes, the printed lines in as few as 120 columns allow.
std::string quote(const std::string& keyword, const std::string& value) {
  std::string text;
  std::size_t room = 0;
  for (const std::string& line : split(value, "\\n")) {
    if (line.size() + 2 > room) {
      text += (text.empty() ? "" : "\"\n  ") + keyword + " \"";
      room = 117 - keyword.size() - 4;
    }
    text += line + "\\n";
    room -= std::min(room, line.size() + 2);
  }
  return text.substr(0, text.size() - 2) + "\"";
}

void update(const Statement& statement, const std::string& keyword, const std::string& value) {
  const bool printed = keyword == "trace" || keyword == "always";
  const bool blank = keyword == "returns" && (value.empty() || value.ends_with(' '));
  changes[statement.at] = {statement.size, printed || blank ? quote(keyword, value)
                                           : value.empty()  ? keyword
                                                            : keyword + " " + value};
}

void check(const Row& row, std::size_t alternative, const std::string& method,
           const std::string& arguments, int tracing) {
  SCOPED_TRACE(method + "(" + arguments + ")" + (tracing != 0 ? " traced" : ""));
  hooks::Run run;
  const FreshModule fresh;
  for (const auto& [name, values] : row.given) {
    apply(name, values[std::min(alternative, values.size() - 1)], &run);
  }
  debug = tracing;
  const Outcome outcome = call(method, arguments, std::move(run));
  std::map<std::string, std::string> actual = {
      {"returns", outcome.result},
      {"module", join(outcome.moduleCalls, "; ")},
      {"jni", std::to_string(outcome.run.jni.size())},
      {"code", outcome.code}};
  std::map<std::string, Statement> expected = row.expected;
  if (tracing != 0) {
    expected.erase("always");
  } else {
    expected["always"];  // silence, unless the row says otherwise
    expected.erase("trace");
    expected.erase("code");
  }
  for (const auto& [keyword, statement] : expected) {
    const std::string& value = statement.text;
    const bool marked = value.find('<') != std::string::npos;
    actual["trace"] = actual["always"] = marked ? outcome.marked : outcome.output;
    const bool named = value.find('@') != std::string::npos;
    const std::string name = named ? method.substr(method.find('.') + 1) : "";
    const std::string is = inTable(actual[keyword], outcome.exception, name);
    if (agrees(is, value)) continue;
    if (updating && statement.size != 0) {
      update(statement, keyword, is);
    } else {
      EXPECT_EQ(is, value) << keyword;
    }
  }
}

TEST(Contract, EveryRowOfTheTable) {
  std::set<std::string> offered;
  std::size_t rows = 0;
  std::ifstream file(QUARVEL_CONTRACT);
  std::string table(std::istreambuf_iterator<char>(file), {});
  for (const Row& row : readRows(table)) {
    std::size_t alternatives = 1;
    for (const auto& given : row.given) alternatives = std::max(alternatives, given.second.size());
    for (const auto& [method, arguments] : row.calls) {
      offered.insert(method);
      rows += alternatives;
      for (std::size_t i = 0; i < 2 * alternatives; ++i) {
        check(row, i / 2, method, arguments, static_cast<int>(i % 2));
      }
    }
  }
  std::printf("contract rows: %zu\n", rows);
  for (const auto& [at, change] : changes) table.replace(at, change.first, change.second);
  if (updating) std::ofstream(QUARVEL_CONTRACT) << table;
  // What the table does not name is not offered: refused by message, the module not reached.
  for (const Method& method : methods()) {
    EXPECT_NE(method.refused, offered.contains(method.name)) << method.name;
    if (!method.refused) continue;
    const bool yet = method.name == "Session.signUpdate" || method.name == "Session.signFinal";
    const Outcome outcome = call(method);
    EXPECT_EQ(outcome.exception, yet ? "Not supported YET" : "Not supported") << method.name;
    EXPECT_EQ(outcome.run.jni.size(), 2u) << method.name;  // FindClass, ThrowNew
    EXPECT_EQ(join(outcome.moduleCalls), "") << method.name;
  }
}

}  // namespace
