#include "tool/Tool.h"

#include "cli/GBCommandLineParser.h"
#include "cli/GBOptionsHelper.h"

namespace tool {

void register_tool_options(cli::GBOptionsHelper& options) {
    using cli::GBValueNone;
    using cli::GBValueRequired;
    options.registerOption('c', std::string("config"), std::string("Read configurations from file"),
                           GBValueRequired);
    options.registerOption(0, std::string("check"), std::string("Check configurations and exit"),
                           GBValueNone);
    options.registerOption(0, std::string("create"), std::string("Create configurations and exit"),
                           GBValueNone);
    options.registerOption(0, std::string("remove"), std::string("Remove configurations and exit"),
                           GBValueNone);
    options.registerOption(0, std::string("verbose"), std::string("Print verbose logs"),
                           GBValueNone);
    options.registerOption('h', std::string("help"), std::string("Print help and exit"),
                           GBValueNone);
}

}  // namespace tool

cli::GBSettingsRef parse_args(int argc, char** argv, const Finish& finish) {
    // A level without storage: both defaults are lost on purpose, so no
    // configuration file name is in effect unless --config gives one.
    auto defaults = std::make_shared<cli::GBSettings>();
    defaults->setBool(false, "verbose");
    defaults->setObject(cli::Value("ikev2.orvn"), "config");
    cli::GBSettingsRef settings =
        cli::GBSettings::settingsWithName(std::string("Current"), defaults);

    auto parser = std::make_shared<cli::GBCommandLineParser>();
    cli::GBOptionsHelper options;
    tool::register_tool_options(options);

    parser->registerOptions(options);
    parser->registerSettings(settings);
    const bool parsed = parser->parseOptionsWithArguments(argv, argc);
    if (parsed && !settings->boolForKey("help")) {
        return settings;
    }
    options.printHelp();
    finish(1);
    return nullptr;
}
