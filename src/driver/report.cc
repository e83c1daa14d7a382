#include "driver/report.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace Driver {

using Json = nlohmann::ordered_json;

namespace {

// A number as people write it: whole numbers without a point, others to
// the millisecond without trailing zeros.
std::string numberText(const Json& v) {
    if (!v.is_number_float()) return v.dump();
    std::string out = fmt::format("{:.3f}", v.get<double>());
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
    return out;
}

// A value as the comparison sees it: strings as they are, null as "-",
// lists as their elements joined with ", ".
std::string text(const Json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_null()) return "-";
    if (v.is_number()) return numberText(v);
    if (v.is_array()) {
        std::vector<std::string> parts;
        for (const auto& e : v) parts.push_back(text(e));
        return fmt::format("{}", fmt::join(parts, ", "));
    }
    return v.dump();
}

// The value in the form the outputs had before their values became fields
// of their own ("(*, 239.1.1.1)", "10.2.0.2 on Ethernet2",
// "(*) rp 10.0.0.1", "rpt wc", "upJoined", ...), so that expectations
// written against those forms keep matching. Null when the field never had
// another form.
Json legacyForm(Output what, const std::string& field, const Json& value, const Json& row) {
    auto each = [&](auto&& f) {
        if (!value.is_array()) return Json();
        Json out = Json::array();
        for (const auto& e : value) out.push_back(f(e));
        return out;
    };
    auto words = [&] {
        if (!value.is_array()) return Json();
        if (value.empty()) return Json("-");
        std::vector<std::string> parts;
        for (const auto& e : value) parts.push_back(text(e));
        return Json(fmt::format("{}", fmt::join(parts, " ")));
    };
    if (field == "route" && row.contains("source") && row.contains("group")) {
        return fmt::format("({}, {})", text(row["source"]), text(row["group"]));
    }
    switch (what) {
        case Output::routes:
            if (field == "flags") return words();
            if (field == "upstream" && value.is_string()) return "up" + value.get<std::string>();
            if (field == "why") {
                return each([](const Json& e) {
                    std::vector<std::string> reasons;
                    for (const auto& r : e["reasons"]) reasons.push_back(text(r));
                    return fmt::format("{} ({})", text(e["interface"]), fmt::join(reasons, "+"));
                });
            }
            break;
        case Output::forwarding:
            if (field == "flags") return words();
            break;
        case Output::joinPrune:
            if (field == "neighbor" && row.contains("interface")) {
                return fmt::format("{} on {}", text(value), text(row["interface"]));
            }
            if (field == "joins" || field == "prunes") {
                return each([](const Json& e) -> std::string {
                    const std::string kind = text(e["kind"]);
                    if (kind == "wc") {
                        const bool suppressed = e.value("suppressed", false);
                        return fmt::format("(*) rp {}{}", text(e["rp"]),
                                           suppressed ? " suppressed" : "");
                    }
                    return text(e["source"]) + (kind == "sg-rpt" ? " rpt" : "");
                });
            }
            break;
        case Output::sptThreshold:
            if (field == "access-lists") {
                return each([](const Json& e) {
                    const auto& p = e["prefixes"];
                    std::vector<std::string> parts;
                    for (const auto& x : p) parts.push_back(text(x));
                    return fmt::format("{} ({}): {}", text(e["name"]), text(e["threshold"]),
                                       parts.empty() ? std::string("-")
                                                     : fmt::format("{}", fmt::join(parts, " ")));
                });
            }
            break;
        case Output::asserts:
        case Output::sent:
            if ((field == "winner-metric" || field == "metric")) {
                if (value.is_null()) return "infinite";
                std::string out =
                    fmt::format("rpt {} pref {} metric {}", int(value["rpt"].get<bool>()),
                                text(value["preference"]), text(value["metric"]));
                if (value.contains("address")) out += " addr " + text(value["address"]);
                return out;
            }
            break;
        default:
            break;
    }
    return nullptr;
}

// Equal as text, or as numbers when both read as one ("212.000" and 212).
bool sameScalar(const Json& expected, const Json& actual) {
    const std::string e = text(expected);
    if (e == text(actual)) return true;
    if (!actual.is_number()) return false;
    double v = 0;
    const auto [end, ec] = std::from_chars(e.data(), e.data() + e.size(), v);
    return ec == std::errc{} && end == e.data() + e.size() &&
           std::abs(v - actual.get<double>()) < 0.0005;
}

bool sameValue(const Json& expected, const Json& actual) {
    if (expected.is_array() != actual.is_array()) return false;
    if (!expected.is_array()) return sameScalar(expected, actual);
    if (expected.size() != actual.size()) return false;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (!sameValue(expected[i], actual[i])) return false;
    }
    return true;
}

// A field of an actual row matches what an expectation wrote: in today's
// form or in the one it had before.
bool fieldMatches(Output what, const std::string& field, const Json& expected, const Json& row) {
    if (!row.contains(field)) return false;
    const Json& actual = row[field];
    if (sameValue(expected, actual)) return true;
    const Json legacy = legacyForm(what, field, actual, row);
    return !legacy.is_null() && sameValue(expected, legacy);
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
            return {"vrf", "neighbor", "interface", "set", "group"};
        case Output::membership:
            return {"vrf", "interface", "source", "group"};
        case Output::rp:
            return {"vrf", "group-range"};
        case Output::neighbors:
            return {"vrf", "interface", "address"};
        case Output::interfaces:
            return {"vrf", "interface"};
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
                if (want.contains(k) && !fieldMatches(what, k, want[k], row)) return false;
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
            } else if (!fieldMatches(what, field, value, actual[i])) {
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

namespace {

// One element of a table cell, without spaces so that a cell stays one
// word for tools that split lines on blanks.
std::string cellPart(const Json& v) {
    if (!v.is_object()) return text(v);
    if (v.contains("kind")) {
        // A Join/Prune entry: wc:RP, sg:SOURCE or sg-rpt:SOURCE.
        const std::string kind = text(v["kind"]);
        if (kind == "wc") {
            return "wc:" + text(v["rp"]) + (v.value("suppressed", false) ? "+suppressed" : "");
        }
        return kind + ":" + text(v["source"]);
    }
    if (v.contains("reasons")) {
        // An outgoing interface: IFACE:REASON+REASON, and :EXPIRES with a Join.
        std::vector<std::string> reasons;
        for (const auto& r : v["reasons"]) reasons.push_back(text(r));
        std::string out = fmt::format("{}:{}", text(v["interface"]), fmt::join(reasons, "+"));
        if (!v["expires"].is_null()) out += ":" + text(v["expires"]);
        return out;
    }
    if (v.contains("prefixes")) {
        // A switchover exception: NAME:THRESHOLD:PREFIX+PREFIX.
        std::vector<std::string> parts;
        for (const auto& p : v["prefixes"]) parts.push_back(text(p));
        return fmt::format(
            "{}:{}:{}", text(v["name"]), text(v["threshold"]),
            parts.empty() ? std::string("-") : fmt::format("{}", fmt::join(parts, "+")));
    }
    std::vector<std::string> parts;
    for (const auto& [k, e] : v.items()) parts.push_back(k + "=" + cellPart(e));
    return fmt::format("{}", fmt::join(parts, ","));
}

std::string cell(const Json& v) {
    if (!v.is_array()) return cellPart(v);
    if (v.empty()) return "-";
    std::vector<std::string> parts;
    for (const auto& e : v) parts.push_back(cellPart(e));
    return fmt::format("{}", fmt::join(parts, ","));
}

// What the abbreviations and words of a table mean, printed under it.
const char* legend(Output what) {
    switch (what) {
        case Output::routes:
            return "flags: rpt RPT bit, wc (*,G) route, spt SPT bit, switching and "
                   "iif-switching incoming interface moving, mbr border router, kat-expired "
                   "keepalive expired, marked to be deleted, programmable forwarded by the "
                   "hardware alone (no switch to the shortest-path tree wanted)\n"
                   "upstream: Joined / NotJoined toward rpf-neighbor (RFC 7761 4.5.4, 4.5.5); "
                   "joined-for: seconds since it joined that neighbour\n"
                   "why: IFACE:REASON[+REASON][:EXPIRES], REASON join (a downstream Join), local "
                   "(a local "
                   "receiver), inherited (from the (*,G) route); EXPIRES seconds until the Join "
                   "times out\n"
                   "uptime: seconds since the route was made; -: none";
        case Output::forwarding:
            return "flags: to-cpu packets reported to the agent, iif-register / oif-register "
                   "register tunnel in or out, no-rpf any incoming interface, skip-kernel not "
                   "programmed, notify-programmable tell the agent once written; -: none";
        case Output::joinPrune:
            return "entries: wc:RP (*,G) toward RP (+suppressed: not sent, another router "
                   "joined), sg:SOURCE (S,G), sg-rpt:SOURCE (S,G,rpt); neighbor self: a "
                   "PruneEcho sent on interface";
        case Output::sent:
            return "metric: rpt RPT bit, preference, metric (the address is the sender's "
                   "own); -: infinite (an AssertCancel)";
        case Output::asserts:
            return "state: iAmAssertWinner / iAmAssertLoser (RFC 7761 4.6); metric: rpt RPT "
                   "bit, preference, metric, address; -: infinite (an AssertCancel)";
        case Output::membership:
            return "decision: include / exclude the receiver counts, ignored (see reason), "
                   "pending not decided yet (or refused at the route limit: see counters)";
        case Output::downstream:
            return "join-state: joined (RFC 7761 Join), prunePending (Prune-Pending); "
                   "rpt-state: rptPrunePending, rptPruned; -: NoInfo\n"
                   "expiry, prune-pending and the rpt- timers: loop time (seconds) the timer "
                   "fires; -: not running";
        case Output::sptThreshold:
            return "access-lists: NAME:THRESHOLD:PREFIX+PREFIX";
        default:
            return nullptr;
    }
}

}  // namespace

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
            line.push_back(row.contains(columns[i]) ? cell(row[columns[i]]) : "-");
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

void printTable(std::ostream& os, Output what, const Json& rows) {
    printTable(os, rows);
    const char* text = rows.empty() ? nullptr : legend(what);
    if (!text) return;
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        os << "  # " << rest.substr(0, end) << '\n';
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
}

void TextReport::show(double at, Output what, const Json& data) {
    os_ << fmt::format("\n== {} at {:.3f}s ==\n", outputName(what), at);
    if (what == Output::trace || what == Output::events) {
        for (const auto& l : data) {
            os_ << fmt::format("  {:>10.3f} {} {}\n", l["time"].get<double>(), text(l["level"]),
                               text(l["text"]));
        }
        if (data.empty()) os_ << "  (none)\n";
        return;
    }
    printTable(os_, what, data);
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
