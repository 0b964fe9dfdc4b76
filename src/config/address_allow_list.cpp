#include "config/address_allow_list.h"

#include <arpa/inet.h>

namespace {

// The prefix length after the slash: 0 to 32, digits only, "0" the only
// spelling that starts with a zero.
bool read_prefix(const std::string& text, unsigned& prefix)
{
    if (text.empty() || text.size() > 2 || (text.size() == 2 && text[0] == '0'))
        return false;
    unsigned value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 32)
        return false;
    prefix = value;
    return true;
}

uint32_t mask_of(unsigned prefix)
{
    return prefix == 0 ? 0 : ~uint32_t(0) << (32 - prefix);
}

}  // namespace

BlockReading read_allowed_block(const std::string& text, AllowedBlock& block)
{
    // A NUL would end the text early for inet_pton and let a tail through.
    if (text.find('\0') != std::string::npos)
        return BlockReading::malformed;
    std::string::size_type slash = text.find('/');
    unsigned prefix = 32;
    if (slash != std::string::npos && !read_prefix(text.substr(slash + 1), prefix))
        return BlockReading::malformed;
    // inet_pton takes only the strict dotted quad: no octal, no short forms.
    in_addr address{};
    if (inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1)
        return BlockReading::malformed;
    uint32_t host = ntohl(address.s_addr);
    block.mask = mask_of(prefix);
    block.network = host & block.mask;
    return block.network == host ? BlockReading::exact : BlockReading::host_bits_set;
}

std::string block_text(const AllowedBlock& block)
{
    unsigned prefix = 0;
    for (uint32_t mask = block.mask; mask != 0; mask <<= 1)
        ++prefix;
    return std::string(dotted_quad(block.network).text) + "/" + std::to_string(prefix);
}

DottedQuad dotted_quad(uint32_t address)
{
    in_addr network_order{};
    network_order.s_addr = htonl(address);
    DottedQuad dotted;
    inet_ntop(AF_INET, &network_order, dotted.text, sizeof dotted.text);
    return dotted;
}

bool AddressAllowList::allows(uint32_t address) const
{
    if (everyone)
        return true;
    for (const AllowedBlock& block : blocks)
        if ((address & block.mask) == block.network)
            return true;
    return false;
}

std::string AddressAllowList::text() const
{
    if (everyone)
        return "any";
    std::string text = "[";
    for (const AllowedBlock& block : blocks) {
        if (text.size() > 1)
            text += ", ";
        text += "\"" + block_text(block) + "\"";
    }
    return text + "]";
}
