// A console reporter that also prints, for every benchmark labelled "vs:<floor>", the ratio of
// its time to the time of the floor benchmark with the same arguments, measured in the same run;
// "vs:<floor>|minus:<other>" also prints the ratio of its time less the time of <other> (a part of
// its work measured alone) to the floor's; and for every benchmark labelled "scale:<run>", the
// ratio of its counter "rate" to the rate of that run (how many times the work one thread gets
// done, with more threads).
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
            auto rate = run.counters.find("rate");
            if (rate != run.counters.end()) rates_[name] = rate->second.value;
            if (run.report_label.rfind("vs:", 0) == 0) {
                const std::string label = run.report_label.substr(3);
                const size_t minus = label.find("|minus:");
                floors_[name] = label.substr(0, minus);
                if (minus != std::string::npos) less_[name] = label.substr(minus + 7);
            }
            if (run.report_label.rfind("scale:", 0) == 0)
                scales_[name] = run.report_label.substr(6);
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\nratios to the floor measured in this run:\n");
        for (const auto& [name, floorName] : floors_) {
            // Same arguments: the part of the name after the first "/", or failing that its first
            // argument alone (run options such as "/iterations:N" may differ).
            const size_t slash = name.find('/');
            const std::string args = slash == std::string::npos ? "" : name.substr(slash);
            std::string floorRun = floorName + args;
            auto floor = times_.find(floorRun);
            if (floor == times_.end() && !args.empty()) {
                const size_t next = args.find('/', 1);
                floorRun = floorName + args.substr(0, next);
                floor = times_.find(floorRun);
            }
            if (floor == times_.end() || floor->second <= 0) continue;
            std::printf("  %-40s %8.2fx  (%s)\n", name.c_str(), times_[name] / floor->second,
                        floorRun.c_str());
            auto less = less_.find(name);
            if (less == less_.end()) continue;
            auto part = times_.find(less->second + floorRun.substr(floorName.size()));
            if (part == times_.end()) continue;
            std::printf("  %-40s %8.2fx  (%s, without %s)\n", name.c_str(),
                        (times_[name] - part->second) / floor->second, floorRun.c_str(),
                        part->first.c_str());
        }
        for (const auto& [name, baseName] : scales_) {
            auto base = rates_.find(baseName);
            auto rate = rates_.find(name);
            if (base == rates_.end() || rate == rates_.end() || base->second <= 0) continue;
            std::printf("  %-40s %8.2fx the rate of %s\n", name.c_str(),
                        rate->second / base->second, baseName.c_str());
        }
    }

  private:
    std::map<std::string, double> times_;
    std::map<std::string, std::string> floors_;
    std::map<std::string, std::string> less_;
    std::map<std::string, double> rates_;
    std::map<std::string, std::string> scales_;
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
