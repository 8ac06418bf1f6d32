// SPDX-License-Identifier: Apache-2.0
// What each native method returns and does, as contract.txt states it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "call.h"

namespace {

using scripted::script;

using Texts = std::vector<std::string>;

struct Statement {
  std::string text;      // that of its quotes runs on
  std::size_t at, size;  // in the table
};

/// One block of the table; what a row does not state is not checked.
struct Row {
  std::vector<std::pair<std::string, std::string>> calls;  // methods with arguments
  std::vector<std::pair<std::string, Texts>> given;        // names with alternative values
  std::map<std::string, Statement> expected;               // by keyword
  std::string keyword;                                     // of the last statement
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
  const bool runsOn = text[0] == '"';
  if (!runsOn) row->keyword = text.substr(0, text.find(' '));
  std::string rest = runsOn ? text : text.substr(std::min(row->keyword.size() + 1, text.size()));
  if (row->keyword == "given") {
    const std::size_t equals = rest.find(" =");
    row->given.emplace_back(rest.substr(0, equals), split(rest.substr(equals + 2), " / "));
  } else {
    if (rest[0] == '"') rest = rest.substr(1, rest.size() - 2);
    Statement& statement =
        row->expected.try_emplace(row->keyword, Statement{"", at, 0}).first->second;
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

/// Sets what a condition names: a field of the script, else the answer of a function.
void apply(const std::string& name, const std::string& text) {
  std::vector<CK_ULONG> values;
  std::istringstream texts(text);
  texts >> std::setbase(name == "value" ? 16 : 0);
  for (CK_ULONG value; texts >> value;) values.push_back(value);
  const std::map<std::string, std::vector<CK_ULONG>*> lists = {
      {"slots", &script.slots},
      {"mechanisms", &script.mechanisms},
      {"found", &script.found},
      {"lies", &script.lies}};
  if (lists.contains(name)) {
    *lists.at(name) = values;
  } else if (name == "value") {
    script.value.assign(values.begin(), values.end());
  } else {
    (name == "handle" ? script.handle : script.answers[name]) = values.at(0);
  }
}

// ---- What a call did, as the table has it ----

using Forms = std::vector<std::pair<std::string, std::string>>;

std::string replaced(std::string text, const Forms& forms) {
  for (const auto& [form, other] : forms) text = join(split(text, form), other.c_str());
  return text;
}

/// @param name the method's, where @ stands for it, else empty
std::string inTable(std::string did, const std::string& name) {
  static const std::pair<std::regex, const char*> together[] = {
      {std::regex("<GetObjectClass><GetFieldID (\\w+)><Get(Int|Object)Field>"), "<read $1>"},
      {std::regex("<FindClass ([^>]+)><IsInstanceOf>"), "<instanceof $1>"},
      {std::regex("<GetMethodID (\\w+)><Call\\w+Method><ExceptionCheck>"), "<call $1>"},
      {std::regex("<FindClass (\\w+)><GetMethodID init><NewObject>"), "<new $1>"},
      {std::regex("JNI: Throwing vendor defined exc '([^']*)'\\.{3}<FindClass PKCS11Exception>"
                  "<raise> Done\n"),
       "<raise $1>"},
      {std::regex("JNI: Throwing exc number (\\w+)\\.{3}"
                  "(<new PKCS11Exception><raise> Done\n|<raise Internal error>)"),
       "<raise $1>"},
      {std::regex("JNI:BRIDGE: Calling (C_\\w+)( ?)\\.{3}<\\1\\(([^>]*)> Done([^\n]*)\n"),
       "<$1$2($3$4>"},
      {std::regex("JNI:BRIDGE: Calling C_GetAttributeValue (\\w+) "
                  "\\.{3}<(C_GetAttributeValue[^{]*.\\1:)null/0[}][)]>"
                  "[(]len=\\d+[)]\\.{3}<allocate><\\2([^>]*)> Done\n"),
       "<$2$3 twice>"},
      {std::regex("(Done: |ptr=)[0-9a-f]{6,}"), "$1ADDRESS"}};
  for (const auto& [calls, form] : together) did = std::regex_replace(did, calls, form);
  Forms forms = {{scripted::file(), "MODULE"},
                 {std::to_string(reinterpret_cast<jlong>(&scripted::list)), "LIST"},
                 {"\n", "\\n"},
                 {"\x01", "\\x01"},
                 {"\xE0 non", "\\xE0 non"}};
  if (!name.empty()) {
    forms.push_back({"C_" + name, "C_@"});
    forms.back().first[2] = static_cast<char>(std::toupper(name[0]));
    forms.push_back({name, "@"});
  }
  return replaced(did, forms);
}

/// What was done, without the kinds that a statement leaves out.
std::string statedOf(std::string did, const Statement& statement) {
  const std::string& stated = statement.text;
  if (statement.size == std::strlen("does")) return did;  // only named yet
  static const std::regex givenBack("<(release|free) [^>]*>");
  static const std::regex steps("<(?!C_|raise|release|free|lookup|dl)[^>]*>");
  for (const std::regex& kind : {givenBack, steps}) {
    if (!std::regex_search(stated, kind)) did = std::regex_replace(did, kind, "");
  }
  if (printedOf(stated).empty()) did = "<" + join(eventsOf(did), "><") + ">";
  return did != "<>" ? did : "";
}

/// The size of what two texts begin with, in whole events and lines.
std::size_t inCommon(const std::string& a, const std::string& b) {
  const std::size_t size = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
  if (a[size] == '<' || size == a.size()) return size;
  const std::string common = a.substr(0, size);
  const std::size_t line = common.rfind("\\n");
  return std::max(common.rfind('>') + 1, line != common.npos ? line + 2 : 0);
}

// ---- Rewriting ----

/// With QUARVEL_UPDATE in the environment a statement of something else is rewritten.
const bool updating = std::getenv("QUARVEL_UPDATE") != nullptr;

struct Change {
  std::size_t size;  // of what it replaces
  std::string keyword, value;
};
std::map<std::size_t, Change, std::greater<>>
    changes;  // by their place in the table, the last first

/// A statement; of a text in quotes, in lines of up to 160 columns that end behind an event or
/// "\n".
/// @param column at which it begins
std::string written(const std::string& keyword, const std::string& value, std::size_t column) {
  if (keyword == "returns" && !value.empty() && !value.ends_with(' ')) return keyword + " " + value;
  std::string text = keyword + " \"";
  column += text.size();
  static const std::regex parts("([^<\\\\]|\\\\x)*(<[^>]*>|\\\\n)?");
  for (std::sregex_iterator at(value.begin(), value.end(), parts), end; at != end; ++at) {
    const std::string part = at->str();
    if (column + part.size() > 159 && !text.ends_with('"')) {
      text += "\"\n  \"";
      column = 3;
    }
    text += part;
    column += part.size();
  }
  return text + "\"";
}

// ---- Rows ----

/// What a row may state of a call, by keyword.
std::map<std::string, std::string> statementsOf(const Outcome& outcome, const std::string& name) {
  return {{"returns", inTable(outcome.result, name)},
          {"always", inTable(printedOf(outcome.untraced), name)},
          {"does", inTable(outcome.did, name)},
          {"raised", split(split(inTable(outcome.did, ""), "<raise ").back(), ">").front()}};
}

/// Expects what a statement says, or notes what it shall say.
/// @param good what the method's first row did, of which "…" stands for the beginning
void compare(const std::string& keyword, const Statement& statement, std::string is,
             std::string good) {
  if (keyword == "does") {
    is = statedOf(is, statement);
    good = statedOf(good, statement);
  }
  if (statement.text.starts_with("…")) is = "…" + is.substr(inCommon(is, good));
  if (updating && statement.size != 0 && is != statement.text) {
    changes[statement.at] = {statement.size, keyword, is};
  } else {
    EXPECT_EQ(is, statement.text) << keyword;
  }
}

void check(const Row& row, std::size_t alternative, const std::string& method,
           const std::string& arguments) {
  SCOPED_TRACE(method + "(" + arguments + ")");
  hooks::Run run;
  Forms given;
  for (const auto& [name, values] : row.given) {
    const std::string& value = values[std::min(alternative, values.size() - 1)];
    if (name == "failing") {
      run.failingLike = value.substr(1);
    } else {
      given.emplace_back(name, value);
    }
  }
  const std::string passed = replaced(arguments, {{"MODULE", scripted::file()}});
  const Outcome outcome = callFresh(method, passed, run, [&] {
    for (const auto& [name, value] : given) apply(name, value);
  });
  const std::string name =
      row.calls.front().first == row.calls.back().first ? "" : method.substr(method.find('.') + 1);
  static std::map<std::string, Outcome> firstRuns;  // by method
  const auto [first, isFirst] = firstRuns.try_emplace(method);
  auto good = statementsOf(first->second, name), actual = statementsOf(outcome, name);
  if (isFirst) first->second = outcome;
  std::map<std::string, Statement> expected = row.expected;
  expected["always"];  // nothing, unless the row says otherwise
  for (const auto& [keyword, statement] : expected) {
    compare(keyword, statement, actual[keyword], good[keyword]);
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
      for (std::size_t i = 0; i < alternatives; ++i) check(row, i, method, arguments);
    }
  }
  std::printf("contract rows: %zu\n", rows);
  for (const auto& [at, change] : changes) {
    const std::size_t column = at - (table.rfind('\n', at) + 1);
    table.replace(at, change.size, written(change.keyword, change.value, column));
  }
  if (updating) std::ofstream(QUARVEL_CONTRACT) << table;
  // What the table does not name is not offered: refused by message, the module not reached.
  for (const Method& method : methods()) {
    EXPECT_NE(method.refused, offered.contains(method.name)) << method.name;
    if (!method.refused) continue;
    const bool yet = method.name == "Session.signUpdate" || method.name == "Session.signFinal";
    const Outcome outcome = callFresh(method);
    EXPECT_EQ(outcome.exception, yet ? "Not supported YET" : "Not supported") << method.name;
    EXPECT_EQ(inTable(outcome.did, ""), "<raise " + outcome.exception + ">") << method.name;
  }
}

TEST(Contract, EveryAttributeTypeIsReadAsItsKind) {
  const std::map<std::string, std::set<jint>> kinds = {
      {"Int", {0, 0x80, 0x100, 0x121, 0x160, 0x161, -1}},
      {"Bool",
       {1, 2, 0x103, 0x104, 0x105, 0x106, 0x107, 0x108, 0x109, 0x10A, 0x10B, 0x10C, 0x162, 0x163,
        0x164, 0x165, 0x170}},
      {"String", {3, 0x10}},
      {"ByteArray", {0x11, 0x81, 0x82, 0x101, 0x102, 0x180, 0x181}},
      {"Date", {0xAC, 0x111}},
      {"BigInteger",
       {0x120, 0x122, 0x123, 0x124, 0x125, 0x126, 0x127, 0x128, 0x130, 0x131, 0x132}}};
  const auto check = [&](jint type) {
    const std::string number = std::to_string(type), any = "Object.getAttributeValue";
    std::string like = any, of = "4";  // which has a row
    for (const auto& [kind, types] : kinds) {
      if (types.contains(type)) like = "Object.get" + kind + "AttributeValue", of = number;
    }
    std::string start = callFresh(like, of).did;
    start.resize(start.find('<'));
    const std::string did = callFresh(any, number).did;
    EXPECT_EQ(did.substr(0, start.size()), start) << did;
  };
  for (const jint base : {0, INT32_MIN, -0x200}) {
    for (jint type = 0; type <= 0x200; ++type) check(base + type);
  }
}

}  // namespace
