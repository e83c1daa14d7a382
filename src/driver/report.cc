#include "driver/report.h"

#include <algorithm>

#include <fmt/format.h>

namespace Driver {

using Json = nlohmann::ordered_json;

namespace {

std::string text(const Json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_array()) {
        std::vector<std::string> parts;
        for (const auto& e : v) parts.push_back(text(e));
        return fmt::format("{}", fmt::join(parts, ", "));
    }
    return v.dump();
}

bool sameValue(const Json& expected, const Json& actual) {
    if (expected.is_array() != actual.is_array()) return false;
    if (!expected.is_array()) return text(expected) == text(actual);
    if (expected.size() != actual.size()) return false;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (!sameValue(expected[i], actual[i])) return false;
    }
    return true;
}

std::vector<std::string> compareLines(const Json& expected, const Json& actual) {
    std::vector<std::string> diff;
    std::size_t at = 0;
    for (const auto& want : expected) {
        const std::string needle = text(want);
        bool found = false;
        for (; at < actual.size() && !found; ++at) {
            found = text(actual[at]["text"]).find(needle) != std::string::npos;
        }
        if (!found) diff.push_back(fmt::format("- missing line: {}", needle));
    }
    return diff;
}

std::vector<std::string> compareRows(const Json& expected, const Json& actual) {
    std::vector<std::string> diff;
    if (!expected.is_array()) return {"- expected a list of rows"};
    std::vector<bool> matched(actual.size(), false);
    for (const auto& want : expected) {
        if (!want.is_object() || want.empty()) {
            diff.push_back("- each expected row must be a mapping");
            continue;
        }
        const std::string idField = want.begin().key();
        const Json idValue = want.begin().value();
        auto it = std::find_if(actual.begin(), actual.end(), [&](const Json& row) {
            return row.contains(idField) && text(row[idField]) == text(idValue);
        });
        if (it == actual.end()) {
            diff.push_back(fmt::format("- missing {} {}", idField, text(idValue)));
            continue;
        }
        matched[it - actual.begin()] = true;
        for (const auto& [field, value] : want.items()) {
            if (!it->contains(field)) {
                diff.push_back(
                    fmt::format("  {} {}: no field '{}'", idField, text(idValue), field));
            } else if (!sameValue(value, (*it)[field])) {
                diff.push_back(fmt::format("  {} {}: {}", idField, text(idValue), field));
                diff.push_back(fmt::format("-   expected: {}", text(value)));
                diff.push_back(fmt::format("+   got:      {}", text((*it)[field])));
            }
        }
    }
    for (std::size_t i = 0; i < actual.size(); ++i) {
        if (matched[i]) continue;
        const auto first = actual[i].begin();
        const std::string id = first.key() + " " + text(first.value());
        diff.push_back(fmt::format("+ unexpected {}", id));
    }
    return diff;
}

}  // namespace

std::vector<std::string> compareOutput(Output what, const Json& expected, const Json& actual) {
    if (what == Output::trace || what == Output::events) return compareLines(expected, actual);
    return compareRows(expected, actual);
}

void printTable(std::ostream& os, const Json& rows) {
    if (rows.empty()) {
        os << "  (none)\n";
        return;
    }
    std::vector<std::string> columns;
    for (const auto& [k, v] : rows.front().items()) columns.push_back(k);
    std::vector<std::size_t> width;
    for (const auto& c : columns) width.push_back(c.size());
    std::vector<std::vector<std::string>> cells;
    for (const auto& row : rows) {
        auto& line = cells.emplace_back();
        for (std::size_t i = 0; i < columns.size(); ++i) {
            line.push_back(row.contains(columns[i]) ? text(row[columns[i]]) : "");
            width[i] = std::max(width[i], line.back().size());
        }
    }
    auto print = [&](const std::vector<std::string>& line) {
        std::string out = " ";
        for (std::size_t i = 0; i < line.size(); ++i) {
            out += ' ';
            out += i + 1 < line.size() ? fmt::format("{:<{}}", line[i], width[i]) : line[i];
        }
        os << out << '\n';
    };
    print(columns);
    for (const auto& line : cells) print(line);
}

void TextReport::show(double at, Output what, const Json& data) {
    os_ << fmt::format("\n== {} at {:.3f}s ==\n", outputName(what), at);
    if (what == Output::trace || what == Output::events) {
        for (const auto& l : data) {
            os_ << fmt::format("  {:>10} {} {}\n", text(l["time"]), text(l["level"]),
                               text(l["text"]));
        }
        if (data.empty()) os_ << "  (none)\n";
        return;
    }
    printTable(os_, data);
}

bool TextReport::expect(double at, const std::string& where, Output what, const Json& expected,
                        const Json& actual) {
    const auto diff = compareOutput(what, expected, actual);
    if (diff.empty()) return true;
    os_ << fmt::format("\n!! {}: expectation on {} at {:.3f}s failed\n", where, outputName(what),
                       at);
    for (const auto& l : diff) os_ << "   " << l << '\n';
    return false;
}

void JsonReport::show(double at, Output what, const Json& data) {
    doc_["shows"].push_back({{"at", at}, {"output", outputName(what)}, {"rows", data}});
}

bool JsonReport::expect(double at, const std::string& where, Output what, const Json& expected,
                        const Json& actual) {
    const auto diff = compareOutput(what, expected, actual);
    if (diff.empty()) return true;
    doc_["failures"].push_back({{"at", at},
                                {"where", where},
                                {"output", outputName(what)},
                                {"diff", diff},
                                {"expected", expected},
                                {"actual", actual}});
    return false;
}

}  // namespace Driver
