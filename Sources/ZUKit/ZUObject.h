#pragma once

// The base of every model object: properties filled and refreshed from JSON
// dictionaries by the class's property descriptors, key-value coding and
// observing, and keyed archiving of the described properties.
//
// A subclass lists its descriptors once, in a static propertyDescriptors()
// that starts from its base class's set (ZU_DESCRIBED_CLASS declares the pair
// of functions), and binds each descriptor to the member it fills:
//
//   Set& VXTrack::propertyDescriptors()
//   {
//       static Set* set = [] {
//           auto descriptors = VXResource::propertyDescriptors().mutableCopy();
//           descriptors->addObject(ZUPropertyDescriptor::descriptorForKeyPath("title")->bind(&VXTrack::m_title));
//           return descriptors.leakRef();
//       }();
//       return *set;
//   }
//
// Decisions (see docs/model-kit.md): a described key that is missing from a
// dictionary leaves its property as it is; a JSON null reaches a transformer
// as an absent value; scalars take a number's (or a string's) value; a value
// a property cannot take is ignored with a log line; a change is a difference
// by isEqual() of the old and new values.

#include "ZUPropertyDescriptor.h"

#include <Platform/Collections.h>
#include <Platform/KeyedArchiver.h>
#include <Platform/Subscription.h>

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace velvox {

inline constexpr std::string_view UndefinedKeyException = "NSUndefinedKeyException";

#define ZU_DESCRIBED_CLASS()               \
public:                                    \
    static ::velvox::Set& propertyDescriptors(); \
    ::velvox::Set& descriptors() const override { return propertyDescriptors(); }

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

    // Fills the described properties that the dictionary holds. Subclasses
    // that override it call the base first, then set their defaults.
    virtual void initWithDictionary(Dictionary*);
    // Sets every described property that the dictionary holds and answers
    // whether any of them changed; observers of a changed key are told once.
    virtual bool updateWithDictionary(Dictionary*);

    // Key-value coding over the described properties (and whatever a subclass
    // adds through accessorForKey). An unknown key raises UndefinedKeyException.
    RefPtr<Object> valueForKey(std::string_view key) const;
    // Dotted paths walk through ZUObjects and dictionaries: "user.username".
    RefPtr<Object> valueForKeyPath(std::string_view keyPath) const;
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
    // Applies one descriptor to a raw JSON value (present in the dictionary).
    // Answers whether the property changed; announces it when asked.
    bool applyDescriptor(const ZUPropertyDescriptor&, Object* jsonValue, bool announce);

private:
    struct Observation {
        std::string key;
        std::shared_ptr<Observer> observer;
        ZUObject* owner; // null once the object is gone
    };
    void removeObservation(Observation*);

    std::unique_ptr<std::vector<std::shared_ptr<Observation>>> m_observations;
};

} // namespace velvox
