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
    // fwrite rather than fputs so that the whole text goes out in one write
    // even if an argument carried a NUL byte.
    std::fwrite(text.data(), 1, text.size(), stream);
}

}  // namespace cli
