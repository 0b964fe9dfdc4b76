// Bytes as the entries of tcp_allow, as an operator may write them.  Every
// entry the block reader accepts is a clean block (a mask of leading ones,
// no network bit outside it) whose text reads back as the same block, and
// an exact entry is written as it was read.  Through the configuration
// loader, a present list never lets everyone in and keeps exactly the
// blocks the reader accepts of its strings, in their order, whatever else
// the list holds.
//
// The first byte chooses the form: even, the rest is entries one per line,
// written into the list as TOML strings; odd, the rest is written between
// the list's brackets as it is.
#include "config/address_allow_list.h"
#include "config/daemon_settings.h"
#include "configuration_in_memory.h"

#include <cpptoml.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>


namespace {

using configuration_in_memory::check;

bool clean(const AllowedBlock& block)
{
    uint32_t below = ~block.mask;
    return (below & (below + 1)) == 0 && (block.network & below) == 0;
}

void check_entry(const std::string& text)
{
    const AllowedBlock untouched{7, 9};
    AllowedBlock block = untouched;
    BlockReading reading = read_allowed_block(text, block);
    if (reading == BlockReading::malformed) {
        check(block == untouched, "a malformed entry leaves the block alone");
        return;
    }
    check(clean(block), "an accepted block has no bit outside its mask");
    std::string written = block_text(block);
    AllowedBlock again;
    check(read_allowed_block(written, again) == BlockReading::exact && again == block,
          "the text of a block reads back as the same block");
    if (reading == BlockReading::exact)
        check(written == text || written == text + "/32", "an exact entry is written as it was read");
}

std::string toml_string(const std::string& bytes)
{
    std::string quoted = "\"";
    for (unsigned char byte : bytes) {
        if (byte < 0x20 || byte == 0x7f || byte == '"' || byte == '\\') {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            quoted += escaped;
        } else {
            quoted += static_cast<char>(byte);
        }
    }
    return quoted + "\"";
}

std::string entries_as_strings(const std::string& lines)
{
    std::string list;
    std::istringstream in(lines);
    for (std::string entry; std::getline(in, entry);) {
        check_entry(entry);
        list += (list.empty() ? "" : ", ") + toml_string(entry);
    }
    return list;
}

// The blocks that the reader accepts of the strings in `node`, in order.
std::vector<AllowedBlock> accepted_blocks(const std::shared_ptr<cpptoml::base>& node)
{
    std::vector<AllowedBlock> blocks;
    if (!node || !node->is_array())
        return blocks;
    for (const auto& entry : node->as_array()->get()) {
        auto text = entry->as<std::string>();
        AllowedBlock block;
        if (text && read_allowed_block(text->get(), block) != BlockReading::malformed)
            blocks.push_back(block);
    }
    return blocks;
}

void check_loader(const std::string& text)
{
    configuration_in_memory::write(text.data(), text.size());
    configuration.clear();
    daemon_settings = DaemonSettings();
    if (!load_configuration())
        return;
    // The loader took the text, so the parser takes it again here.
    std::istringstream stream(text);
    std::shared_ptr<cpptoml::table> root = cpptoml::parser(stream).parse();
    std::shared_ptr<cpptoml::base> node = root->get_table("daemon")->get("tcp_allow");
    const AddressAllowList& list = daemon_settings.tcp_allow;
    check(!list.everyone, "a list that is there never lets everyone in");
    check(list.blocks == accepted_blocks(node), "the loader keeps the blocks the reader accepts");
    for (const AllowedBlock& block : list.blocks)
        check(clean(block), "a kept block has no bit outside its mask");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    configuration_in_memory::open("q9_tcp_allow_fuzzer");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    check_entry(rest);
    std::string list = (data[0] & 1) != 0 ? rest : entries_as_strings(rest);
    check_loader("[daemon]\ntcp_allow = [" + list + "]\n");
    return 0;
}
