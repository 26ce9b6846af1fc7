// The simplified parse forms: the built-in block that writes into the
// registered settings level and prints the parse errors, and the process's
// own argument list.

#include "cli/GBCommandLineParser.h"
#include "cli/GBPrint.h"
#include "os/Process.h"

#include <cstdio>

namespace cli {

void GBCommandLineParser::validateSimplifiedOptionsWithSelector(std::string_view /*selector*/) {}

GBParseBlock GBCommandLineParser::simplifiedOptionsParserBlock() {
    // Hold the parser strongly when something already owns it that way.
    std::shared_ptr<GBCommandLineParser> keepAlive = weak_from_this().lock();
    GBCommandLineParser* parser = this;
    return [parser, keepAlive](GBParseFlags flags, const std::optional<std::string>& option,
                               const Value& value, bool* /*stop*/) {
        const GBSettingsRef& settings = parser->settings();
        switch (flags) {
            case GBParseFlagOption:
                if (settings && option) settings->setObject(value, *option);
                break;
            case GBParseFlagArgument:
                if (settings) settings->addArgument(value);
                break;
            case GBParseFlagWrongGroup:
                gbfprintln(stderr, "Invalid option {} for group {}!", option,
                           parser->currentOptionsGroupName());
                break;
            case GBParseFlagMissingValue:
                gbfprintln(stderr, "Missing value for command line option {}, try --help!", option);
                break;
            case GBParseFlagUnknownOption:
                gbfprintln(stderr, "Unknown command line option {}, try --help!", option);
                break;
        }
    };
}

bool GBCommandLineParser::parseOptionsUsingDefaultArguments() {
    validateSimplifiedOptionsWithSelector("parseOptionsUsingDefaultArguments");
    return parseOptionsUsingDefaultArgumentsWithBlock(simplifiedOptionsParserBlock());
}

bool GBCommandLineParser::parseOptionsWithArguments(const char* const* argv, int argc) {
    validateSimplifiedOptionsWithSelector("parseOptionsWithArguments:count:");
    return parseOptionsWithArguments(argv, argc, simplifiedOptionsParserBlock());
}

bool GBCommandLineParser::parseOptionsWithArguments(const std::vector<std::string>& arguments,
                                                    const std::string& commandLine) {
    validateSimplifiedOptionsWithSelector("parseOptionsWithArguments:commandLine:");
    return parseOptionsWithArguments(arguments, commandLine, simplifiedOptionsParserBlock());
}

std::vector<std::string> processArguments() {
    return os::processArguments();
}

std::string processName() {
    const std::vector<std::string> arguments = processArguments();
    if (arguments.empty()) return {};
    const std::string& program = arguments.front();
    const std::size_t slash = program.rfind('/');
    return slash == std::string::npos ? program : program.substr(slash + 1);
}

}  // namespace cli
