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

// The fields that name a row of each table.
std::vector<std::string> keyFields(Output what) {
    switch (what) {
        case Output::routes:
        case Output::forwarding:
        case Output::register_:
            return {"vrf", "route"};
        case Output::joinPrune:
            return {"vrf", "neighbor", "set", "group"};
        default:
            return {"vrf"};
    }
}

// "route (*, 239.1.1.1)": the row's key fields that `like` names (all of
// them when `like` is null).
std::string rowName(const Json& row, const std::vector<std::string>& keys, const Json* like) {
    std::vector<std::string> parts;
    for (const auto& k : keys) {
        if (row.contains(k) && (!like || like->contains(k))) {
            parts.push_back(k + " " + text(row[k]));
        }
    }
    return fmt::format("{}", fmt::join(parts, ", "));
}

std::vector<std::string> compareRows(Output what, const Json& expected, const Json& actual) {
    std::vector<std::string> diff;
    if (!expected.is_array()) return {"- expected a list of rows"};
    const auto keys = keyFields(what);
    std::vector<bool> matched(actual.size(), false);
    for (const auto& want : expected) {
        if (!want.is_object() || want.empty()) {
            diff.push_back("- each expected row must be a mapping");
            continue;
        }
        // The first row not matched yet whose key fields equal the ones given.
        auto same = [&](const Json& row) {
            for (const auto& k : keys) {
                if (want.contains(k) && (!row.contains(k) || text(row[k]) != text(want[k]))) {
                    return false;
                }
            }
            return true;
        };
        std::size_t i = 0;
        while (i < actual.size() && (matched[i] || !same(actual[i]))) ++i;
        const std::string name = rowName(want, keys, nullptr);
        if (i == actual.size()) {
            diff.push_back("- missing " + name);
            continue;
        }
        matched[i] = true;
        for (const auto& [field, value] : want.items()) {
            if (!actual[i].contains(field)) {
                diff.push_back(fmt::format("  {}: no field '{}'", name, field));
            } else if (!sameValue(value, actual[i][field])) {
                diff.push_back(fmt::format("  {}: {}", name, field));
                diff.push_back(fmt::format("-   expected: {}", text(value)));
                diff.push_back(fmt::format("+   got:      {}", text(actual[i][field])));
            }
        }
    }
    const Json* like = expected.empty() ? nullptr : &expected.front();
    for (std::size_t i = 0; i < actual.size(); ++i) {
        if (!matched[i]) diff.push_back("+ unexpected " + rowName(actual[i], keys, like));
    }
    return diff;
}

}  // namespace

std::vector<std::string> compareOutput(Output what, const Json& expected, const Json& actual) {
    if (what == Output::trace || what == Output::events) return compareLines(expected, actual);
    return compareRows(what, expected, actual);
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
