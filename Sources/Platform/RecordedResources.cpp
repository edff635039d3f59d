// The resource folder of the tree a static VelvoxKit lies in, for programs
// linked from it that live elsewhere (Bundle's last resort): the build tree's
// when built; the install step writes the prefix's over it in the installed
// archive (cmake/VelvoxRecordResources.cmake). Its own section and a fixed
// size, so that the step can replace the bytes without a compiler. Kept out
// of the reader's file so that the compiler cannot fold the value in.

namespace velvox::detail {

extern const char recordedResourceFolder[4096];
__attribute__((section("velvox_resources"), used)) const char recordedResourceFolder[4096] = VELVOX_BUILD_RESOURCES;

} // namespace velvox::detail
