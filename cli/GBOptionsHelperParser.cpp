// The registry's hand-over to the command-line parser, and the parser's
// registerOptions, which is defined here beside it.

#include "cli/GBCommandLineParser.h"
#include "cli/GBOptionsHelper.h"

namespace cli {

void GBOptionsHelper::registerOptionsToCommandLineParser(GBCommandLineParser& parser) {
    enumerateOptions([&](OptionDefinition& option, bool*) {
        if (!isCmdLine(option)) return;
        if (isSeparator(option)) return;
        if (isOptionGroup(option)) {
            parser.beginRegisterOptionGroup(option.longOption().value_or(std::string()));
            return;
        }
        // A group opened with the no-command-line mark was skipped above,
        // yet its end record still closes a group in the parser.
        if (isOptionGroupEnd(option)) {
            parser.endRegisterOptionGroup();
            return;
        }
        // A record without a long name is no option the parser could match.
        if (!option.longOption()) return;
        parser.registerOption(*option.longOption(), static_cast<char>(option.shortOption()),
                              static_cast<GBOptionRequirement>(requirements(option)));
    });
}

void GBCommandLineParser::registerOptions(GBOptionsHelper& options) {
    options.registerOptionsToCommandLineParser(*this);
}

}  // namespace cli
