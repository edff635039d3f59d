#pragma once

// One call that makes the framework's named parts known to the platform: the
// value transformers that the model classes name, in the order in which the
// resource store registers them, and the model classes that archives hold.
// Tools and tests call it instead of registering piece by piece; calling it
// again registers everything again (a name registered twice is replaced).

namespace velvox {

// The eight value transformers: URL string, tag list, API timestamp, string to
// array, activity type, track state, time interval, number to string.
void VXRegisterValueTransformers();

// Every model class, for keyed archives.
void VXRegisterArchiveClasses();

// The transformers, then the archive classes.
void VXRegisterFramework();

} // namespace velvox
