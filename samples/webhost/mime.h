// Media types by the ending of a file's name.
#pragma once

#include <string_view>

namespace webhost {

struct MediaType {
    std::string_view ending, name;
    bool compressible;
};

const MediaType &media_type(std::string_view path);

}  // namespace webhost
