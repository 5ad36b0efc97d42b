#include "alarms/shelf.h"

#include <algorithm>

namespace station {

bool Shelf::put(const Shelving& shelving) {
    const std::pair key(shelving.about, shelving.type);
    if (shelved_.size() >= kLimit && !shelved_.contains(key)) {
        return false;
    }
    shelved_.insert_or_assign(key, shelving);
    ++version_;
    return true;
}

std::optional<Shelving> Shelf::take(const Subject& about, std::size_t type) {
    auto node = shelved_.extract({about, type});
    if (node.empty()) {
        return std::nullopt;
    }
    ++version_;
    return std::move(node.mapped());
}

std::vector<Shelving> Shelf::takeEnded(WallTime now) {
    std::vector<Shelving> ended;
    std::erase_if(shelved_, [&](const auto& entry) {
        const Shelving& shelving = entry.second;
        if (now < shelving.until && shelving.until - now <= kLongest) {
            return false;
        }
        ended.push_back(shelving);
        return true;
    });
    version_ += ended.size();
    return ended;
}

const Shelving* Shelf::find(const Subject& about, std::size_t type) const {
    const auto found = shelved_.find({about, type});
    return found == shelved_.end() ? nullptr : &found->second;
}

std::vector<Shelving> Shelf::all() const {
    std::vector<Shelving> all;
    all.reserve(shelved_.size());
    for (const auto& [key, shelving] : shelved_) {
        all.push_back(shelving);
    }
    std::ranges::stable_sort(all, {}, &Shelving::until);
    return all;
}

}  // namespace station
