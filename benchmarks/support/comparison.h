#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tern::benchmarks {

/// The middle one of some values; 0 of none.
double Median(std::vector<double> values);
/// `full`, or 1 when only a quick look is wanted (TERN_BENCHMARK_QUICK).
int Rounds(int full);

/// Has the programs that this one starts find our libraries as installed. Every side looks in that folder
/// first; none has a run path of the build.
void UseInstalledLibraries();

/// The value that so much (0 to 1) of them do not exceed; 0 of none.
double Quantile(std::vector<double> values, double portion);

/// Figures of several sides, taken in rounds in which every side had its turn, and written as JSON:
///
///     {"name", "title", "load", "note", "rows": [{"what", "unit", "values": {side: median},
///      "ratios": {side: median of ours / side}, "target", "against": side or null, "limit", "ahead_of":
///      [side]}], "growth": [{"what", "unit", "points": {amount: cost}, "limit"}]}
///
/// A ratio is taken inside each round, so that what slows a whole round down does not count; the median is of
/// the rounds. With "against" null the limit, where there is one, is for our value itself.
class Comparison {
public:
    /// Our own side.
    static constexpr const char* OURS = "tern";

    /// One line of the results.
    class Row {
    public:
        Row(std::string what, std::string unit, std::string target, std::string against, double limit)
            : mWhat(std::move(what)),
              mUnit(std::move(unit)),
              mTarget(std::move(target)),
              mAgainst(std::move(against)),
              mLimit(limit) {}

        /// One side's value of the present round; each side has as many as there are rounds.
        void Add(const std::string& side, double value);
        double Value(const std::string& side) const { return Median(mRounds.at(side)); }
        /// Ours over the side's.
        double Ratio(const std::string& side) const;
        /// Ours is to cost no more than these either, where they are there.
        Row& AheadOf(std::vector<std::string> sides);
        std::string ToJson() const;
        void Print() const;

    private:
        std::string mWhat;
        std::string mUnit;
        std::string mTarget;
        std::string mAgainst;
        double mLimit;
        std::vector<std::string> mAheadOf;
        std::vector<std::string> mSides;
        std::map<std::string, std::vector<double>> mRounds;
    };

    Comparison(std::string name, std::string title);

    /// A row whose ratio to `against` is to be at most `limit`.
    Row MakeRow(std::string what, std::string unit, const std::string& against, double limit) const;
    /// A row without a target.
    Row MakeRow(std::string what, std::string unit) const;
    /// A row whose own value is to be at most `limit`, which `target` puts in words.
    Row MakeRowBelow(std::string what, std::string unit, std::string target, double limit) const;

    /// Prints the row and keeps it for the file.
    void Finish(const Row& row);
    /// The cost of so much work; the exponent is to be at most `limit`, 0 for none.
    void AddGrowth(const std::string& what, const std::string& unit, const std::map<int, double>& points,
                   double limit);
    /// A sentence below the table.
    void SetNote(std::string note) { mNote = std::move(note); }
    /// Writes what was finished. Ends the process as failed when the file cannot be written.
    void Write(const std::string& path) const;

private:
    std::string mName;
    std::string mTitle;
    double mLoad;
    std::string mNote;
    std::vector<std::string> mRows;
    std::vector<std::string> mGrowth;
};

}  // namespace tern::benchmarks
