// How the command-line layer scales with its input: argument parsing,
// configuration reading, help and values-report output, and lookups through
// chains of settings levels. Each benchmark reports Google Benchmark's
// complexity fit over its range.

#include "cli/GBCommandLineParser.h"
#include "cli/GBOptionsHelper.h"
#include "cli/GBSettings.h"
#include "connector/OVConnectorIKEv2.h"
#include "tool/Tool.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

using cli::GBCommandLineParser;
using cli::GBOptionsHelper;
using cli::GBSettings;

// Sends standard output to /dev/null while it lives, so that the printing
// benchmarks measure formatting and writing, not the terminal.
class QuietStdout {
  public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

  private:
    int saved_;
};

// The tool's own options, then N arguments that alternate between a value
// option, a switch and its negated twin, ending with positional words.
void ParseArguments(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<std::string> words;
    words.reserve(count + 1);
    words.emplace_back("orvane-ikev2");
    for (std::size_t i = 0; words.size() <= count; ++i) {
        switch (i % 4) {
            case 0:
                words.emplace_back("--config=file" + std::to_string(i));
                break;
            case 1:
                words.emplace_back("--verbose");
                break;
            case 2:
                words.emplace_back("--no-check");
                break;
            default:
                words.emplace_back("-c");
                words.emplace_back("path" + std::to_string(i));
                break;
        }
    }
    words.resize(count + 1);
    std::vector<const char*> argv;
    for (const auto& w : words) argv.push_back(w.c_str());

    for (auto _ : state) {
        GBOptionsHelper options;
        tool::register_tool_options(options);
        auto parser = std::make_shared<GBCommandLineParser>();
        parser->registerOptions(options);
        parser->registerSettings(GBSettings::settingsWithName("Current", nullptr));
        bool ok = parser->parseOptionsWithArguments(argv.data(), static_cast<int>(argv.size()));
        benchmark::DoNotOptimize(ok);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ParseArguments)
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

void ReadConfiguration(benchmark::State& state) {
    const auto lines = state.range(0);
    char path[] = "/tmp/orvane-bench-config-XXXXXX";
    int fd = mkstemp(path);
    close(fd);
    {
        std::ofstream out(path);
        for (std::int64_t i = 0; i < lines; ++i) {
            switch (i % 4) {
                case 0:
                    out << "ip = 192.0.2." << (i % 250) << "\n";
                    break;
                case 1:
                    out << "username='user" << i << "'\n";
                    break;
                case 2:
                    out << "password=\"p=ss word " << i << "\"\n";
                    break;
                default:
                    out << "remote=vpn" << i << ".example.net\n";
                    break;
            }
        }
    }
    for (auto _ : state) {
        auto config = ParseConfig(path);
        benchmark::DoNotOptimize(config);
    }
    unlink(path);
    state.SetComplexityN(lines);
}
// 40000 lines is about 0.9 MB: the largest file the tool reads is 1 MiB.
BENCHMARK(ReadConfiguration)
    ->RangeMultiplier(10)
    ->Range(10, 40000)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

// N options in groups of ten, each group after a separator.
void RegisterManyOptions(GBOptionsHelper& options, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
        if (i % 10 == 0) options.registerSeparator("Section " + std::to_string(i / 10));
        options.registerOption(0, "option-" + std::to_string(i),
                               "Description of option " + std::to_string(i),
                               static_cast<std::uint64_t>(i % 3));
    }
}

void PrintHelp(benchmark::State& state) {
    GBOptionsHelper options;
    RegisterManyOptions(options, state.range(0));
    QuietStdout quiet;
    for (auto _ : state) options.printHelp();
    state.SetComplexityN(state.range(0));
}
BENCHMARK(PrintHelp)->RangeMultiplier(10)->Range(10, 10000)->Complexity()->Unit(
    benchmark::kMillisecond);

void PrintValuesReport(benchmark::State& state) {
    GBOptionsHelper options;
    RegisterManyOptions(options, state.range(0));
    auto factory = GBSettings::settingsWithName("Factory", nullptr);
    auto current = GBSettings::settingsWithName("Current", factory);
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        auto key = "option-" + std::to_string(i);
        (i % 2 ? current : factory)->setObject(cli::Value("value " + std::to_string(i)), key);
    }
    current->addArgument(cli::Value("file"));
    QuietStdout quiet;
    for (auto _ : state) options.printValuesFromSettings(*current);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(PrintValuesReport)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

// A value set only at the root, read through every level above it; and an
// array key merged across every level.
void SettingsLookupThroughChain(benchmark::State& state) {
    auto level = GBSettings::settingsWithName("level 0", nullptr);
    level->setObject(cli::Value("root value"), "key");
    level->addArgument(cli::Value("arg 0"));
    for (std::int64_t i = 1; i < state.range(0); ++i) {
        level = GBSettings::settingsWithName("level " + std::to_string(i), level);
        level->addArgument(cli::Value("arg " + std::to_string(i)));
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(level->objectForKey("key"));
        benchmark::DoNotOptimize(level->boolForKey("missing"));
        benchmark::DoNotOptimize(level->arguments());
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(SettingsLookupThroughChain)
    ->DenseRange(1, 100, 33)
    ->Complexity()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
