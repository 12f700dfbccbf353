// The page of a directory: its entries as links, without scripts.
#pragma once

#include <string>
#include <string_view>

#include "tools/served_directory.h"

namespace tool {

// The order of a page. Directories come first in each order.
struct PageOrder {
    enum EKey { NAME, SIZE, DATE };

    EKey m_Key = NAME;
    bool m_bDescending = false;
};

// Parses the query of a request: "sort=size", "sort=-date". Anything else is by name.
PageOrder ParsePageOrder(std::string_view aQuery);

// aPath: of the directory below the root, without slashes around it. aListing is sorted in place.
std::string MakeDirectoryPage(const std::string& aPath, DirectoryListing& aListing, PageOrder aOrder);

}  // namespace tool
