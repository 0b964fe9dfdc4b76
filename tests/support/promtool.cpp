#include "promtool.h"

#include "files.h"
#include "process.h"

namespace q9test {

// promtool reads the text from its standard input, which run_tool() ties
// to /dev/null, so a shell hands it the file.
std::optional<std::string> promtool_problems(const std::string& text)
{
    std::string file = work_dir() + "/promtool-input.prom";
    write_file(file, text);
    ToolResult result = run_tool("/bin/sh", {"-c", "command -v promtool >/dev/null || exit 77; "
                                                   "exec promtool check metrics <" + file});
    if (result.status == 77)
        return std::nullopt;
    if (result.status == 0 && result.out.empty() && result.err.empty())
        return "";
    return "exit " + std::to_string(result.status) + ": " + result.out + result.err;
}

}  // namespace q9test
