// Application-facing interface of a statistics record: a snapshot as (name, value) text pairs.
#pragma once

#include <string>
#include <utility>
#include <vector>

class qv_base_statistics {
public:
    using item = std::pair<std::string, std::string>;
    using items = std::vector<item>;

    virtual ~qv_base_statistics() = default;
    // The whole record as (name, value) pairs, in display order, taken consistently.
    virtual items get_items() = 0;
};
