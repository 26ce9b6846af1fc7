// Any argument vector (the input split at NUL bytes) parses without a crash
// into a settings level, with the tool's own options registered.

#include "cli/GBCommandLineParser.h"
#include "cli/GBOptionsHelper.h"
#include "cli/GBSettings.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            arguments.emplace_back();
        } else {
            arguments.back().push_back(static_cast<char>(data[i]));
        }
    }

    cli::GBOptionsHelper options;
    options.registerOption('c', "config", "Read configurations from file", 0);
    options.registerOption(0, "check", "Check configurations and exit", 2);
    options.registerOption(0, "level", "Optional value", 1);
    options.registerGroup("group", "A group", [](cli::GBOptionsHelper& inner) {
        inner.registerOption('v', "verbose", "Print verbose logs", 2);
    });
    auto parser = std::make_shared<cli::GBCommandLineParser>();
    parser->registerOptions(options);
    auto settings = cli::GBSettings::settingsWithName("Current", nullptr);
    parser->registerSettings(settings);
    parser->parseOptionsWithArguments(
        arguments, "fuzz",
        [&](cli::GBParseFlags flags, const std::optional<std::string>& option,
            const cli::Value& value, bool*) {
            if (flags == cli::GBParseFlagOption && option) settings->setObject(value, *option);
            if (flags == cli::GBParseFlagArgument) settings->addArgument(value);
        });
    (void)settings->arguments().description();
    return 0;
}
