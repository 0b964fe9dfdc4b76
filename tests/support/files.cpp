#include "files.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace q9test {

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool path_exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace q9test
