// The page's files, built into ocpctl from tools/ocpctl/scope/page/ at build
// time: nothing is fetched when the page loads.
#pragma once

#include <cstddef>
#include <vector>

namespace ocpctl::scope {

struct Asset {
    const char* path;          // "/", "/scope.js"
    const char* content_type;
    const char* data;
    std::size_t size;
};

const std::vector<Asset>& page_assets();

}  // namespace ocpctl::scope
