#include "movie/module/parameter_sets.h"

#include <algorithm>
#include <array>

namespace client::movie {
namespace {

constexpr std::array<uint8_t, 3> start_code{0, 0, 1};
constexpr int type_sps = 7, type_pps = 8;

} // namespace

std::vector<uint8_t> parameter_sets(std::span<const uint8_t> access_unit)
{
    std::vector<uint8_t> sets;
    const auto next_code = [&access_unit](auto from) {
        return std::search(from, access_unit.end(), start_code.begin(), start_code.end());
    };
    for (auto at = next_code(access_unit.begin()); at != access_unit.end();) {
        const auto unit = at + start_code.size();
        at = next_code(unit);
        const int type = unit == access_unit.end() ? 0 : *unit & 31;
        if (type != type_sps && type != type_pps)
            continue;
        sets.push_back(0);
        sets.insert(sets.end(), start_code.begin(), start_code.end());
        // a zero before the next start code belongs to that code
        auto end = at;
        while (end > unit && end[-1] == 0)
            --end;
        sets.insert(sets.end(), unit, end);
    }
    return sets;
}

} // namespace client::movie
