#pragma once
// Reports of a scenario run: aligned text tables for people, or one JSON
// document for machines; both list shows and failed expectations in time
// order. `compareOutput` is the check behind `expect`.

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "driver/runner.h"

namespace Driver {

// Compares an expectation with the actual rows and returns the differences
// as readable lines (empty when they match).
//   - Tables (routes, counters, ...): the rows are matched by the key fields
//     they give (VRF, route; for Join/Prune contents also neighbour, set and
//     group); every expected row must exist, with each field
//     it names equal to the actual one (values compared as text, lists
//     element by element); actual rows not expected are differences too. An
//     empty list expects no rows.
//   - trace / events: a list of texts, each of which must appear, in that
//     order, in the lines since the previous show.
std::vector<std::string> compareOutput(Output what, const nlohmann::ordered_json& expected,
                                       const nlohmann::ordered_json& actual);

// Aligned columns, one word per cell: lists joined with ",", null as "-".
void printTable(std::ostream& os, const nlohmann::ordered_json& rows);
// The same, followed by the legend of the output's flags and words.
void printTable(std::ostream& os, Output what, const nlohmann::ordered_json& rows);

class TextReport : public Report {
public:
    explicit TextReport(std::ostream& os) : os_(os) {}
    void show(double at, Output what, const nlohmann::ordered_json& data) override;
    bool expect(double at, const std::string& where, Output what,
                const nlohmann::ordered_json& expected,
                const nlohmann::ordered_json& actual) override;

private:
    std::ostream& os_;
};

class JsonReport : public Report {
public:
    void show(double at, Output what, const nlohmann::ordered_json& data) override;
    bool expect(double at, const std::string& where, Output what,
                const nlohmann::ordered_json& expected,
                const nlohmann::ordered_json& actual) override;
    const nlohmann::ordered_json& document() const { return doc_; }

private:
    nlohmann::ordered_json doc_ = {{"shows", nlohmann::ordered_json::array()},
                                   {"failures", nlohmann::ordered_json::array()}};
};

}  // namespace Driver
