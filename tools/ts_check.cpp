/**
 * Checks a transport stream file: ts_check FILE [--packet-size 188|192] [--rate BITS] [--live].
 * Prints the contents, then one line per error. Exit code 1 if there is an error.
 */
#include "transport_stream/checker.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

using namespace transport_stream;

namespace {

constexpr size_t lines_of_a_kind = 10;

int usage()
{
    std::fprintf(stderr, "usage: ts_check FILE [--packet-size 188|192] [--rate BITS] [--live]\n");
    return 2;
}

bool parse(int argc, char** argv, std::string& file, CheckOptions& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--live")
            options.live = true;
        else if (word == "--packet-size" && i + 1 < argc)
            options.packet_size = std::strtoul(argv[++i], nullptr, 10);
        else if (word == "--rate" && i + 1 < argc)
            options.rate = std::strtoull(argv[++i], nullptr, 10);
        else if (file.empty() && word.rfind("--", 0) != 0)
            file = word;
        else
            return false;
    }
    return !file.empty() &&
           (options.packet_size == 0 || options.packet_size == 188 || options.packet_size == 192);
}

void print(const Report& report)
{
    std::printf(
        "%zu packets of %zu bytes, %zu null (%.1f%%), %.3f s from time %.3f s, %.0f bit/s\n",
        report.packets, report.packet_size, report.null_packets,
        report.packets
            ? 100.0 * static_cast<double>(report.null_packets) / static_cast<double>(report.packets)
            : 0.0,
        report.seconds, report.first_time, report.rate);
    std::printf("%zu time references, at most %.1f ms apart\n", report.time_references,
                report.greatest_time_interval * 1000);
    for (const StreamSummary& stream : report.streams) {
        std::printf(
            "PID 0x%x type 0x%02x: %zu packets, %zu access units, %zu to start at, %llu bytes",
            stream.pid, stream.type, stream.packets, stream.access_units,
            stream.random_access_units, static_cast<unsigned long long>(stream.payload_bytes));
        if (stream.first_pts)
            std::printf(", PTS %.3f to %.3f s", static_cast<double>(*stream.first_pts) / 90000,
                        static_cast<double>(*stream.last_pts) / 90000);
        std::printf("%s\n", stream.cut ? ", last PES packet cut by the end" : "");
    }
    std::map<std::string, size_t> printed;
    for (const Finding& finding : report.findings) {
        if (++printed[finding.kind] <= lines_of_a_kind)
            std::printf("error: packet %zu: %s: %s\n", finding.packet, finding.kind.c_str(),
                        finding.what.c_str());
    }
    for (const auto& [kind, number] : printed)
        std::printf("errors: %s %zu\n", kind.c_str(), number);
}

} // namespace

int main(int argc, char** argv)
{
    std::string name;
    CheckOptions options;
    if (!parse(argc, argv, name, options))
        return usage();
    std::ifstream file(name, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "ts_check: cannot read %s\n", name.c_str());
        return 2;
    }
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    const Report report =
        check({reinterpret_cast<const uint8_t*>(content.data()), content.size()}, options);
    print(report);
    return report.good() ? 0 : 1;
}
