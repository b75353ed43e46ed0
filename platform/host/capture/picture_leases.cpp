#include "capture/picture_leases.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace zu3host {

namespace {

// A region has a handful of pictures, so that a search through a vector beats any cleverer table.
struct LeaseTable {
    LeaseTable() { pictures.reserve(64); }
    std::mutex mutex;
    // one entry a lease
    std::vector<const uint8_t*> pictures;
};

LeaseTable& leases()
{
    // never destroyed: threads may outlive static destruction
    static auto* table = new LeaseTable;
    return *table;
}

} // namespace

void lease_picture(const uint8_t* picture)
{
    LeaseTable& table = leases();
    const std::lock_guard lock(table.mutex);
    table.pictures.push_back(picture);
}

void return_picture(const uint8_t* picture)
{
    LeaseTable& table = leases();
    const std::lock_guard lock(table.mutex);
    const auto found = std::find(table.pictures.begin(), table.pictures.end(), picture);
    if (found == table.pictures.end())
        return;
    *found = table.pictures.back();
    table.pictures.pop_back();
}

bool picture_is_leased(const uint8_t* picture)
{
    LeaseTable& table = leases();
    const std::lock_guard lock(table.mutex);
    return std::find(table.pictures.begin(), table.pictures.end(), picture) != table.pictures.end();
}

} // namespace zu3host
