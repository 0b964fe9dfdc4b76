// The addresses a trigger peer may connect from: IPv4 addresses and CIDR
// blocks as an operator writes them in the configuration.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

/// One allowed block: an address matches when its bits under `mask` equal
/// `network`.  Both in host byte order.
struct AllowedBlock {
    uint32_t network = 0;
    uint32_t mask = 0;

    bool operator==(const AllowedBlock& other) const
    {
        return network == other.network && mask == other.mask;
    }
};

/// What reading one entry found.
enum class BlockReading {
    exact,           ///< an address ("10.1.2.3", taken as /32) or a clean block ("10.0.0.0/8")
    host_bits_set,   ///< a block whose address has bits below the prefix ("10.1.2.3/8"); they are dropped
    malformed,       ///< anything else; `block` is left alone
};

/// Reads `text` as "A.B.C.D" or "A.B.C.D/N" (N from 0 to 32, decimal, no
/// sign, no leading zero, no spaces).  Dotted quads are the strict form:
/// four decimal parts, none with a leading zero.
BlockReading read_allowed_block(const std::string& text, AllowedBlock& block);

/// The block as the settings line shows it: "10.0.0.0/8".
std::string block_text(const AllowedBlock& block);

/// An IPv4 address in dotted decimal, held in place so that writing an
/// address into a line allocates nothing.
struct DottedQuad {
    char text[INET_ADDRSTRLEN];  ///< "255.255.255.255" and its NUL at most
};

/// `address` (host byte order) as "10.1.2.3".
DottedQuad dotted_quad(uint32_t address);

/// Who may connect.  By default everyone, as the classic daemon; once a list
/// is configured, only the addresses in its blocks (an empty list: nobody).
struct AddressAllowList {
    bool everyone = true;
    std::vector<AllowedBlock> blocks;

    /// Whether `address` (host byte order) may connect.
    bool allows(uint32_t address) const;
    /// "any" for everyone, otherwise the blocks: ["10.0.0.0/8", "192.168.1.5/32"].
    std::string text() const;

    bool operator==(const AddressAllowList& other) const
    {
        return everyone == other.everyone && blocks == other.blocks;
    }
};
