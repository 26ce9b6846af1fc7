#include "cli/GBPrint.h"

namespace cli {

void gb_printf_worker(std::FILE* stream, fmt::string_view format, fmt::format_args args) {
    std::string text;
    try {
        text = fmt::vformat(format, args);
    } catch (const fmt::format_error&) {
        // Only a format made at run time can get here; the printing layer
        // never throws, so the text goes out unformatted.
        text.assign(format.data(), format.size());
    }
    // Handed over as a C string: a NUL in an argument ends the output there,
    // the line feed of a line variant included.
    std::fputs(text.c_str(), stream);
}

}  // namespace cli
