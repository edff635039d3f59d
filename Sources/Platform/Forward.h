#pragma once

namespace velvox {

template<typename T> class Ref;
template<typename T> class RefPtr;

class Array;
class Bundle;
class Clock;
class Coding;
class Data;
class Date;
class Dictionary;
class Enumerator;
class Error;
class Exception;
class FileManager;
class Image;
class KeyedArchiver;
class KeyedUnarchiver;
class ManualClock;
class MutableArray;
class MutableDictionary;
class MutableSet;
class Notification;
class NotificationCenter;
class NotificationObserver;
class Null;
class Number;
class Object;
class RunLoop;
class Set;
class String;
class Timer;
class URL;
class ValueTransformer;

} // namespace velvox
