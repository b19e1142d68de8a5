// A console reporter that also prints, for every benchmark labelled "vs:<floor>" (or
// "vs:<floor>,<floor>,..."), the ratio of its time to the time of each floor benchmark with the
// same arguments, measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace FerritBench {

class FloorReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
            const std::string name = run.benchmark_name();
            times_[name] = run.GetAdjustedRealTime();
            if (run.report_label.rfind("vs:", 0) != 0) continue;
            std::vector<std::string>& floors = floors_[name];
            floors.clear();
            const std::string list = run.report_label.substr(3);
            for (size_t start = 0; start <= list.size();) {
                size_t end = list.find(',', start);
                if (end == std::string::npos) end = list.size();
                if (end > start) floors.push_back(list.substr(start, end - start));
                start = end + 1;
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\nratios to the floor measured in this run:\n");
        for (const auto& [name, floorNames] : floors_) {
            for (const std::string& floorName : floorNames) {
                // Same arguments: the part of the name after the first "/", or failing that its
                // first argument alone (run options such as "/iterations:N" may differ).
                const size_t slash = name.find('/');
                const std::string args = slash == std::string::npos ? "" : name.substr(slash);
                std::string floorRun = floorName + args;
                auto floor = times_.find(floorRun);
                if (floor == times_.end() && !args.empty()) {
                    const size_t next = args.find('/', 1);
                    floorRun = floorName + args.substr(0, next);
                    floor = times_.find(floorRun);
                }
                if (floor == times_.end() && !args.empty()) {
                    floorRun = floorName;
                    floor = times_.find(floorRun);
                }
                if (floor == times_.end() || floor->second <= 0) continue;
                std::printf("  %-40s %8.2fx  (%s)\n", name.c_str(), times_[name] / floor->second,
                            floorRun.c_str());
            }
        }
    }

  private:
    std::map<std::string, double> times_;
    std::map<std::string, std::vector<std::string>> floors_;
};

}  // namespace FerritBench

#define FERRIT_BENCHMARK_MAIN()                                           \
    int main(int argc, char** argv) {                                     \
        benchmark::Initialize(&argc, argv);                               \
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
        FerritBench::FloorReporter reporter;                              \
        benchmark::RunSpecifiedBenchmarks(&reporter);                     \
        benchmark::Shutdown();                                            \
        return 0;                                                         \
    }
