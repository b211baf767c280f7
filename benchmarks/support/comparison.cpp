#include "benchmarks/support/comparison.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tern::benchmarks {

namespace {

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + '"';
}

std::string Number(double value) {
    std::ostringstream stream;
    stream.precision(5);
    stream << value;
    return std::isfinite(value) ? stream.str() : "null";
}

template <typename Convert>
std::string Joined(const std::vector<std::string>& texts, Convert convert) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + convert(text);
    }
    return all;
}

double LoadAverage() {
    double load = 0;
    std::ifstream("/proc/loadavg") >> load;
    return load;
}

}  // namespace

void UseInstalledLibraries() {
    setenv("LD_LIBRARY_PATH", TERN_INSTALLED_LIBRARIES, 1);  // NOLINT(concurrency-mt-unsafe): one thread
}

double Quantile(std::vector<double> values, double portion) {
    if (values.empty()) {
        return 0;
    }
    const auto place = values.begin() + std::lround(portion * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

double Median(std::vector<double> values) {
    return Quantile(std::move(values), 0.5);
}

int Rounds(int full) {
    return std::getenv("TERN_BENCHMARK_QUICK") != nullptr ? 1 : full;  // NOLINT(concurrency-mt-unsafe)
}

Comparison::Row& Comparison::Row::AheadOf(std::vector<std::string> sides) {
    mAheadOf = std::move(sides);
    return *this;
}

void Comparison::Row::Add(const std::string& side, double value) {
    if (mRounds.count(side) == 0) {
        mSides.push_back(side);
    }
    mRounds[side].push_back(value);
}

double Comparison::Row::Ratio(const std::string& side) const {
    const std::vector<double>& ours = mRounds.at(OURS);
    const std::vector<double>& theirs = mRounds.at(side);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(ours.size(), theirs.size()); ++i) {
        if (theirs[i] != 0) {
            ratios.push_back(ours[i] / theirs[i]);
        }
    }
    return Median(std::move(ratios));
}

std::string Comparison::Row::ToJson() const {
    std::string values;
    std::string ratios;
    for (const std::string& side : mSides) {
        values += (values.empty() ? "" : ", ") + Quoted(side) + ": " + Number(Value(side));
        if (side != OURS && mRounds.count(OURS) != 0) {
            ratios += (ratios.empty() ? "" : ", ") + Quoted(side) + ": " + Number(Ratio(side));
        }
    }
    std::string json = "{\"what\": " + Quoted(mWhat) + ", \"unit\": " + Quoted(mUnit) + ", \"values\": {" +
                       values + "}, \"ratios\": {" + ratios + "}";
    if (mLimit != 0) {
        json += ", \"target\": " + Quoted(mTarget) +
                ", \"against\": " + (mAgainst.empty() ? "null" : Quoted(mAgainst)) +
                ", \"limit\": " + Number(mLimit);
    }
    if (!mAheadOf.empty()) {
        json += ", \"ahead_of\": [" + Joined(mAheadOf, Quoted) + "]";
    }
    return json + "}";
}

void Comparison::Row::Print() const {
    printf("| %s, %s |", mWhat.c_str(), mUnit.c_str());
    for (const std::string& side : mSides) {
        printf(" %s %.5g", side.c_str(), Value(side));
        if (side != OURS && mRounds.count(OURS) != 0) {
            printf(" (%.3f)", Ratio(side));
        }
        printf(" |");
    }
    printf(" %s |\n", mTarget.c_str());
    fflush(stdout);
}

Comparison::Comparison(std::string name, std::string title)
    : mName(std::move(name)), mTitle(std::move(title)), mLoad(LoadAverage()) {
    printf("\n### %s (load %.1f; in brackets ours over theirs)\n\n", mTitle.c_str(), mLoad);
}

Comparison::Row Comparison::MakeRow(std::string what, std::string unit, const std::string& against,
                                    double limit) const {
    return {std::move(what), std::move(unit), "<= " + Number(limit) + " of " + against, against, limit};
}

Comparison::Row Comparison::MakeRow(std::string what, std::string unit) const {
    return {std::move(what), std::move(unit), std::string(), std::string(), 0};
}

Comparison::Row Comparison::MakeRowBelow(std::string what, std::string unit, std::string target,
                                         double limit) const {
    return {std::move(what), std::move(unit), std::move(target), std::string(), limit};
}

void Comparison::Finish(const Row& row) {
    row.Print();
    mRows.push_back(row.ToJson());
}

void Comparison::AddGrowth(const std::string& what, const std::string& unit,
                           const std::map<int, double>& points, double limit) {
    std::string list;
    for (const auto& [amount, cost] : points) {
        list += (list.empty() ? "" : ", ") + Quoted(std::to_string(amount)) + ": " + Number(cost);
    }
    mGrowth.push_back("{\"what\": " + Quoted(what) + ", \"unit\": " + Quoted(unit) + ", \"points\": {" +
                      list + "}" + (limit != 0 ? ", \"limit\": " + Number(limit) : "") + "}");
}

void Comparison::Write(const std::string& path) const {
    const auto lines = [](const std::vector<std::string>& texts) {
        return Joined(texts, [](const std::string& text) { return "\n  " + text; });
    };
    std::ofstream file(path);
    file << "{\"name\": " << Quoted(mName) << ", \"title\": " << Quoted(mTitle)
         << ", \"load\": " << Number(mLoad) << ", \"note\": " << Quoted(mNote) << ",\n \"rows\": ["
         << lines(mRows) << "],\n \"growth\": [" << lines(mGrowth) << "]}\n";
    if (!file.flush()) {
        fprintf(stderr, "%s could not be written\n", path.c_str());
        std::exit(1);
    }
}

}  // namespace tern::benchmarks
