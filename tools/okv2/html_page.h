// A container as one page to look at: needs nothing but a browser, and nothing of it comes from elsewhere.
#pragma once

#include <string>
#include <string_view>

#include "okv2/container_reader.h"

namespace zel::tool {

// For element content and for attribute values in double quotes.
[[nodiscard]] std::string htmlEscaped(std::string_view text);

// JSON that may stand inside a script element: no byte of it can end the element or begin a comment.
[[nodiscard]] std::string scriptSafe(std::string_view json);

// `title` is what the page is headed with. The view has been verified, so its findings are complete.
[[nodiscard]] std::string htmlPage(const ContainerView& view, const std::string& title);

}  // namespace zel::tool
