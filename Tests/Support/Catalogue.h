#pragma once

// Records of the sandbox's sample catalogue, for tests of the models.

#include <Platform/Collections.h>

#include <cstddef>
#include <string_view>

namespace velvox::test {

// Registers the framework's transformers and archive classes once.
void registerFrameworkOnce();

// A track record of the catalogue, its {base} placeholders filled in; the
// framework is registered first. Fails the test when the catalogue cannot be read.
Ref<MutableDictionary> catalogueTrack(size_t index);

// A dictionary decoded from JSON text; fails the test when it is not one.
Ref<Dictionary> json(std::string_view text);

} // namespace velvox::test
