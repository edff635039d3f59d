#pragma once

// The base of every model object: properties filled and refreshed from JSON
// dictionaries by the class's property descriptors, key-value coding and
// observing, and keyed archiving of the described properties.
//
// A model class is declared from one table, one row per property: its type
// (a scalar such as bool, int32_t, uint64_t or double, or an object class such
// as String, URL, Date or Array), its name, the name with a capital for the
// setter, its JSON key, and the registered name of a value transformer (or {}
// for none). The table gives each property a member, a getter, a setter that
// tells observers, and a descriptor whose key path is the name; the base
// class's descriptors come first.
//
//   #define VX_SAMPLE_PROPERTIES(P) (one row per line, each line ending in a backslash)
//       P(String, title, Title, "title", {})
//       P(URL, artworkURL, ArtworkURL, "artwork_url", VXURLStringValueTransformerName)
//       P(uint64_t, playbackCount, PlaybackCount, "playback_count", {})
//
//   class VXSample final : public VXResource {
//       VX_OBJECT(VXSample)
//       ZU_PROPERTIES(VX_SAMPLE_PROPERTIES)
//       ...
//   };
//   // In the source file:
//   ZU_DEFINE_PROPERTIES(VXSample, VXResource, VX_SAMPLE_PROPERTIES)
//
// A class may also list its descriptors by hand (ZU_DESCRIBED_CLASS, then a
// propertyDescriptors() that binds each descriptor to its member).
//
// Decisions (see docs/model-kit.md): a described key that is missing from a
// dictionary leaves its property as it is; a JSON null reaches a transformer
// as an absent value; scalars take a number's (or a string's) value; a value
// a property cannot take is ignored with a log line; a change is a difference
// by isEqual() of the old and new values.

#include "ZUPropertyDescriptor.h"
#include "ZUPropertyTable.h"

#include <Platform/Collections.h>
#include <Platform/KeyedArchiver.h>
#include <Platform/Subscription.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velvox {

#define ZU_DESCRIBED_CLASS()                                                      \
public:                                                                           \
    static ::velvox::Set& propertyDescriptors();                                  \
    ::velvox::Set& descriptors() const override { return propertyDescriptors(); } \
    const ::velvox::ZUPropertyTable& propertyTable() const override               \
    {                                                                             \
        static const ::velvox::ZUPropertyTable table(propertyDescriptors());      \
        return table;                                                             \
    }

namespace detail {

// How a property type of a model table is stored, read and set.
template<typename T, bool IsObject = std::is_base_of_v<Object, T>>
struct ZUPropertyType {
    using Storage = RefPtr<T>;
    using Value = T*;
    static T* get(const Storage& storage) { return storage.get(); }
};
template<typename T>
struct ZUPropertyType<T, false> {
    using Storage = T;
    using Value = T;
    static T get(const T& storage) { return storage; }
};

Ref<ZUPropertyDescriptor> describeProperty(std::string_view name, std::string_view key, std::string_view transformer);

} // namespace detail

#define ZU_PROPERTY_ACCESSORS(Type, name, Name, key, transformer)                                                                \
    ::velvox::detail::ZUPropertyType<Type>::Value name() const { return ::velvox::detail::ZUPropertyType<Type>::get(m_##name); } \
    void set##Name(::velvox::detail::ZUPropertyType<Type>::Value value) { setDeclaredProperty(m_##name, value, #name); }
#define ZU_PROPERTY_MEMBER(Type, name, Name, key, transformer) ::velvox::detail::ZUPropertyType<Type>::Storage m_##name {};
#define ZU_PROPERTY_DESCRIPTOR(Type, name, Name, key, transformer) \
    descriptors->addObject(::velvox::detail::describeProperty(#name, key, transformer)->bind(&ZUThisClass::m_##name));

// In the class body: the properties of the table, their members, and the
// class's descriptor set. Leaves the access level at public.
#define ZU_PROPERTIES(TABLE)     \
    ZU_DESCRIBED_CLASS()         \
    TABLE(ZU_PROPERTY_ACCESSORS) \
private:                         \
    TABLE(ZU_PROPERTY_MEMBER)    \
public:

// In the source file: the descriptor set, the base class's first, built once.
#define ZU_DEFINE_PROPERTIES(Class, Base, TABLE)                          \
    ::velvox::Set& Class::propertyDescriptors()                           \
    {                                                                     \
        static ::velvox::Set* set = [] {                                  \
            using ZUThisClass = Class;                                    \
            auto descriptors = Base::propertyDescriptors().mutableCopy(); \
            TABLE(ZU_PROPERTY_DESCRIPTOR)                                 \
            return static_cast<::velvox::Set*>(descriptors.leakRef());    \
        }();                                                              \
        return *set;                                                      \
    }

class ZUObject : public Object, public Coding {
    VX_OBJECT(ZUObject)
public:
    // Makes an object and runs initWithDictionary() on it. T's constructor may
    // be private if T befriends ZUObject.
    template<typename T>
    static Ref<T> create(Dictionary* dictionary)
    {
        auto object = adoptRef(*new T);
        object->initWithDictionary(dictionary);
        return object;
    }

    // The base's set is empty. The same object on every call.
    static Set& propertyDescriptors();
    // The set of the object's own class.
    virtual Set& descriptors() const { return propertyDescriptors(); }
    // The same descriptors, in order and by key path.
    virtual const ZUPropertyTable& propertyTable() const;

    // Fills the described properties that the dictionary holds. Subclasses
    // that override it call the base first, then set their defaults.
    virtual void initWithDictionary(Dictionary*);
    // Sets every described property that the dictionary holds and answers
    // whether any of them changed; observers of a changed key are told once.
    virtual bool updateWithDictionary(Dictionary*);

    // Where the last raise of a value transformer came from while a record
    // was applied on this thread: the class and the JSON key (both empty
    // after clearUnreadableValue()). The raise itself goes on unchanged; this
    // lets a host that catches it say which field of which record was wrong.
    struct UnreadableValue {
        std::string className;
        std::string key;
    };
    static const UnreadableValue& lastUnreadableValue();
    static void clearUnreadableValue();
    static void noteUnreadableValue(std::string_view className, std::string_view key);

    // Key-value coding over the described properties (and whatever a subclass
    // adds through accessorForKey). An unknown key raises UndefinedKeyException.
    RefPtr<Object> valueForKey(std::string_view key) const override;
    // Sets the property and tells its observers.
    void setValue(Object* value, std::string_view forKey);
    template<typename T> void setValue(const Ref<T>& value, std::string_view forKey) { setValue(value.ptr(), forKey); }
    template<typename T> void setValue(const RefPtr<T>& value, std::string_view forKey) { setValue(value.get(), forKey); }

    // Key-value observing. Observers of a key are called after its change, on
    // the changing thread, in the order they were added, while the returned
    // Subscription lives; an observer removed during the call is not called
    // after. The Subscription does not keep the object alive.
    using Observer = std::function<void(ZUObject&, const String& key)>;
    Subscription addObserver(std::string_view key, Observer);
    void willChangeValueForKey(std::string_view key);
    void didChangeValueForKey(std::string_view key);
    // Counts the object's announced changes: an equal count means that no
    // property changed in between (what a memo of objects made from an
    // answer needs to stay valid).
    uint32_t changeCount() const { return m_changeCount; }
    // Whether anyone observes a key of the object (cheap: no allocation when none ever did).
    bool hasObservers() const { return m_observations && !m_observations->empty(); }

    // Keyed archiving of the described properties.
    const Coding* asCoding() const override { return this; }
    void encodeWithCoder(KeyedArchiver&) const override;
    virtual void initWithCoder(KeyedUnarchiver&);
    // Lets archives hold objects of class T (made with T's default constructor, then initWithCoder()).
    template<typename T>
    static void registerClassForArchiving()
    {
        KeyedUnarchiver::registerClass(T::s_info.name, [](KeyedUnarchiver& coder) -> RefPtr<Object> {
            auto object = adoptRef(*new T);
            object->initWithCoder(coder);
            return object;
        });
    }

    // "<ClassName 0x0000ABCD>".
    Ref<String> description() const override;

protected:
    ZUObject();
    ~ZUObject() override;

    // The accessor behind a key, for key-value coding; subclasses may answer
    // keys beyond their descriptors.
    virtual const ZUPropertyAccessor* accessorForKey(std::string_view key) const;
    // Applies one descriptor (the table's `index`th) to a raw JSON value
    // (present in the dictionary). Answers whether the property changed;
    // announces it when asked.
    bool applyDescriptor(const ZUPropertyDescriptor&, size_t index, Object* jsonValue, bool announce);
    // Calls apply(descriptor, index, value) for each descriptor whose JSON key the dictionary has, in order.
    template<typename Apply>
    void forEachDescribedValue(const Dictionary&, Apply&&) const;

    // The setters of a model table: store the value and tell observers.
    template<typename Storage, typename Value>
    void setDeclaredProperty(Storage& member, Value value, std::string_view key)
    {
        forgetAppliedValues();
        if (!m_observations) {
            member = value;
            ++m_changeCount;
            return;
        }
        Ref protectedThis { *this }; // an observer may drop the last other reference
        willChangeValueForKey(key);
        member = value;
        didChangeValueForKey(key);
    }

private:
    struct Observation {
        std::string key;
        std::shared_ptr<Observer> observer;
        ZUObject* owner; // null once the object is gone
    };
    void removeObservation(Observation*);

    std::unique_ptr<std::vector<std::shared_ptr<Observation>>> m_observations;

    // The raw JSON values last applied to the transformed properties, by
    // descriptor index: an unchanged refresh compares raw values (mostly the
    // same decoded object) instead of transforming them again. Valid while
    // no setter ran and no transformer was registered since.
    void forgetAppliedValues()
    {
        if (m_appliedValues) [[unlikely]]
            m_appliedValues.reset();
    }
    void rememberAppliedValue(size_t index, Object* jsonValue);
    std::unique_ptr<RefPtr<Object>[]> m_appliedValues;
    uint64_t m_appliedGeneration { 0 };
    uint32_t m_changeCount { 0 };
};

} // namespace velvox
