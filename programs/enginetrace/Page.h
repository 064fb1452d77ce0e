#pragma once

#include <string_view>

/// \file
/// The page that HtmlWriter fills, from the files in the folder page. The build makes the source.

extern const std::string_view pageBeforeLines;
extern const std::string_view pageBehindLines;
