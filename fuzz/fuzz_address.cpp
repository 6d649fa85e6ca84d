// White-list texts (IPv4 and IPv6) and the membership tests, judged against a plain reference: a
// list parses to the ranges of its pieces parsed one by one; a piece in a simple form (an address,
// an address with a prefix length, two addresses with a dash) gives the block that inet_pton and
// bit masks give; an address is in the list exactly when a range holds it.
#include "FuzzSupport.h"
#include "IPUtil.h"
#include "PortScanModule.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

namespace {

using Engine::IP6_RANGE;
using Engine::IP_RANGE;
using Engine::IPUtil;

std::vector<std::string> Pieces(const std::string& text) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (;;) {
        std::size_t comma = text.find(',', start);
        std::string piece =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const std::size_t first = piece.find_first_not_of(" \t\n\v\f\r");
        pieces.push_back(first == std::string::npos
                             ? ""
                             : piece.substr(first, piece.find_last_not_of(" \t\n\v\f\r") - first + 1));
        if (comma == std::string::npos) {
            return pieces;
        }
        start = comma + 1;
    }
}

bool Digits(const std::string& text) {
    return !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos;
}

// A dotted quad as inet_pton reads it, in host order; 255.255.255.255 counts as no address.
std::optional<uint32_t> Quad(const std::string& text) {
    in_addr address{};
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) ||
        inet_pton(AF_INET, text.c_str(), &address) != 1 || address.s_addr == 0xFFFFFFFFu) {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}

// The range a simple IPv4 piece stands for; nothing for any other form.
std::optional<IP_RANGE> SimpleRange4(const std::string& piece) {
    if (piece == "all") {
        return IP_RANGE{0, 0xFFFFFFFFu};
    }
    std::size_t dash = piece.find('-');
    if (dash != std::string::npos) {
        auto first = Quad(piece.substr(0, dash));
        auto last = Quad(piece.substr(dash + 1));
        return first && last ? std::optional<IP_RANGE>(IP_RANGE{*first, *last}) : std::nullopt;
    }
    std::size_t slash = piece.find('/');
    auto address = Quad(piece.substr(0, slash));
    if (!address) {
        return std::nullopt;
    }
    if (slash == std::string::npos) {
        return IP_RANGE{*address, *address};
    }
    const std::string bits = piece.substr(slash + 1);
    if (!Digits(bits) || bits.size() > 2 || std::stoi(bits) > 32) {
        return std::nullopt;
    }
    const int n = std::stoi(bits);
    if (n == 0) {
        return IP_RANGE{1, 0xFFFFFFFFu};  // the start of the whole space is 0.0.0.1, on purpose
    }
    const uint32_t mask = n == 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> n);
    return IP_RANGE{*address & mask, *address | ~mask};
}

std::string Hex(const unsigned char* bytes) {
    std::string text;
    char two[3];
    for (int i = 0; i < 16; ++i) {
        std::snprintf(two, sizeof(two), "%02x", bytes[i]);
        text += two;
    }
    return text;
}

// The range a simple IPv6 piece (hex digits and colons, optionally a prefix length 1..128) stands for.
std::optional<IP6_RANGE> SimpleRange6(const std::string& piece) {
    std::size_t slash = piece.find('/');
    const std::string address = piece.substr(0, slash);
    unsigned char bytes[16];
    if (address.empty() || address.find_first_not_of("0123456789abcdefABCDEF:") != std::string::npos ||
        inet_pton(AF_INET6, address.c_str(), bytes) != 1) {
        return std::nullopt;
    }
    int n = 128;
    if (slash != std::string::npos) {
        const std::string bits = piece.substr(slash + 1);
        if (!Digits(bits) || std::stoi(bits) < 1 || std::stoi(bits) > 128) {
            return std::nullopt;
        }
        n = std::stoi(bits);
    }
    unsigned char first[16], last[16];
    for (int i = 0; i < 16; ++i) {
        const int kept = std::min(8, std::max(0, n - 8 * i));
        const unsigned char mask = static_cast<unsigned char>(kept == 0 ? 0 : 0xFF << (8 - kept));
        first[i] = bytes[i] & mask;
        last[i] = bytes[i] | static_cast<unsigned char>(~mask);
    }
    // The block's ends are rendered as text and read back; a text with a dotted IPv4 tail (the
    // IPv4-mapped and -compatible blocks) is not read back as hex digits, a known limit of the
    // IPv6 list, which nothing in the agent uses.
    char text[INET6_ADDRSTRLEN];
    for (const unsigned char* end : {first, last}) {
        if (n < 128 && inet_ntop(AF_INET6, end, text, sizeof(text)) != nullptr &&
            std::strchr(text, '.') != nullptr) {
            return std::nullopt;
        }
    }
    return IP6_RANGE{Hex(first), Hex(last)};
}

void JudgeIPv4(const std::string& text, const uint8_t* probeBytes) {
    std::vector<IP_RANGE> ranges{{5, 6}};  // a stale content that must go
    const bool parsed = IPUtil::parse_ip_ranges(text.c_str(), ranges);
    FUZZ_CHECK(parsed == !ranges.empty(), "result and ranges disagree");
    std::vector<IP_RANGE> joined;
    for (const std::string& piece : Pieces(text)) {
        std::vector<IP_RANGE> one;
        IPUtil::parse_ip_ranges(piece.c_str(), one);
        FUZZ_CHECK(one.size() <= 1, "piece \"" + piece + "\" gave several ranges");
        if (auto simple = SimpleRange4(piece)) {
            FUZZ_CHECK(FuzzSupport::SameRanges(one, {*simple}), "piece \"" + piece + "\"");
        }
        joined.insert(joined.end(), one.begin(), one.end());
    }
    FUZZ_CHECK(FuzzSupport::SameRanges(joined, ranges), "list differs from its pieces");

    in_addr probe;
    std::memcpy(&probe, probeBytes, 4);
    const std::string probeText = inet_ntoa(probe);
    const uint32_t host = ntohl(probe.s_addr);
    bool inside = false;
    for (const IP_RANGE& range : ranges) {
        inside = inside || (range.start <= host && host <= range.end);
    }
    inside = inside && probe.s_addr != 0xFFFFFFFFu;
    FUZZ_CHECK(IPUtil::is_ip_in_range(probeText.c_str(), ranges) == inside, probeText);
    FUZZ_CHECK(IPUtil::IsWhiteIpList(probeText.c_str(), ranges) == inside, probeText);
    std::string hit = "none";
    const bool listed = IPUtil::is_iplist_in_range({"255.255.255.255", probeText}, ranges, hit);
    FUZZ_CHECK(listed == inside && hit == (inside ? probeText : "none"), probeText);
}

void JudgeIPv6(const std::string& text, const uint8_t* probeBytes) {
    std::vector<IP6_RANGE> ranges{{"x", "y"}};
    const bool parsed = IPUtil::parse_ip6_ranges(text.c_str(), ranges);
    FUZZ_CHECK(parsed == !ranges.empty(), "result and ranges disagree");
    std::vector<IP6_RANGE> joined;
    for (const std::string& piece : Pieces(text)) {
        std::vector<IP6_RANGE> one;
        IPUtil::parse_ip6_ranges(piece.c_str(), one);
        FUZZ_CHECK(one.size() <= 1, "piece \"" + piece + "\" gave several ranges");
        for (const IP6_RANGE& range : one) {
            FUZZ_CHECK(range.start.size() == 32 && range.end.size() == 32 &&
                           range.start.find_first_not_of("0123456789abcdef") == std::string::npos &&
                           range.end.find_first_not_of("0123456789abcdef") == std::string::npos,
                       "piece \"" + piece + "\" gave " + range.start + "-" + range.end);
        }
        if (auto simple = SimpleRange6(piece)) {
            FUZZ_CHECK(FuzzSupport::SameRanges(one, {*simple}),
                       "piece \"" + piece + "\", expected " + simple->start + "-" + simple->end);
        }
        joined.insert(joined.end(), one.begin(), one.end());
    }
    FUZZ_CHECK(FuzzSupport::SameRanges(joined, ranges), "list differs from its pieces");

    char probeText[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, probeBytes, probeText, sizeof(probeText));
    if (std::strchr(probeText, '.') != nullptr) {
        return;  // the dotted tail of a mapped address is not read as hex digits
    }
    const std::string probe = Hex(probeBytes);
    bool inside = false;
    for (const IP6_RANGE& range : ranges) {
        inside = inside || (range.start <= probe && probe <= range.end);
    }
    FUZZ_CHECK(IPUtil::is_ip6_in_range(probeText, ranges) == inside, probeText);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs([] { Engine::PortScan::GetLoggerPtr(); });
    return 0;
}

// The first 16 bytes are the probe address (IPv4: the first 4), the rest the list text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 16) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 16),
                           strnlen(reinterpret_cast<const char*>(data + 16), size - 16));
    JudgeIPv4(text, data);
    JudgeIPv6(text, data);
    return 0;
}
