#include "VXChangeJournal.h"

#include "VXArchiveStore.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <unistd.h>

namespace velvox {

namespace {

constexpr std::array<std::pair<std::string_view, VXChangeJournal::Kind>, 5> kinds { {
    { "follow", VXChangeJournal::Kind::Follow },
    { "unfollow", VXChangeJournal::Kind::Unfollow },
    { "favorite", VXChangeJournal::Kind::Favorite },
    { "unfavorite", VXChangeJournal::Kind::Unfavorite },
    { "comment", VXChangeJournal::Kind::Comment },
} };

std::optional<std::string> text(Dictionary& record, std::string_view key)
{
    auto* value = record.objectForKey<String>(key);
    if (!value || value->view().size() > VXChangeJournal::maximumTextLength)
        return std::nullopt;
    return value->str();
}

std::optional<double> number(Dictionary& record, std::string_view key)
{
    auto* value = record.objectForKey<Number>(key);
    if (!value || value->isBoolean() || !std::isfinite(value->doubleValue()))
        return std::nullopt;
    return value->doubleValue();
}

std::optional<VXChangeJournal::Entry> entryOf(Object* object)
{
    auto* record = dynamicDowncast<Dictionary>(object);
    if (!record)
        return std::nullopt;
    auto kindName = text(*record, "kind");
    auto target = text(*record, "target");
    auto account = text(*record, "account");
    auto madeAt = number(*record, "madeAt");
    auto attempted = number(*record, "attempted");
    auto previous = number(*record, "previous");
    auto kind = kindName ? VXChangeJournal::kindNamed(*kindName) : std::nullopt;
    if (!kind || !target || target->empty() || !account || !madeAt || !attempted || !previous)
        return std::nullopt;
    VXChangeJournal::Entry entry;
    entry.kind = *kind;
    entry.target = *target;
    entry.account = *account;
    entry.madeAt = *madeAt;
    entry.attempted = *attempted != 0;
    if (auto lookAfter = number(*record, "lookAfter"))
        entry.lookAfter = *lookAfter;
    entry.previous = *previous == 1 ? 1 : (*previous == 0 ? 0 : -1);
    if (entry.isComment()) {
        auto body = text(*record, "body");
        if (!body || body->empty())
            return std::nullopt;
        entry.body = *body;
        if (record->objectForKey("timestamp")) {
            auto timestamp = number(*record, "timestamp");
            if (!timestamp || *timestamp < INT32_MIN || *timestamp > INT32_MAX)
                return std::nullopt;
            entry.timestamp = static_cast<int64_t>(*timestamp);
        }
    }
    return entry;
}

Ref<Dictionary> recordOf(const VXChangeJournal::Entry& entry)
{
    auto record = MutableDictionary::create();
    record->setObject(String::create(VXChangeJournal::nameOfKind(entry.kind)), "kind");
    record->setObject(String::create(entry.target), "target");
    record->setObject(String::create(entry.account), "account");
    record->setObject(Number::create(entry.madeAt), "madeAt");
    record->setObject(Number::create(int32_t(entry.attempted ? 1 : 0)), "attempted");
    record->setObject(Number::create(entry.previous), "previous");
    if (entry.attempted)
        record->setObject(Number::create(entry.lookAfter), "lookAfter");
    if (entry.isComment()) {
        record->setObject(String::create(entry.body), "body");
        if (entry.timestamp)
            record->setObject(Number::create(static_cast<long long>(*entry.timestamp)), "timestamp");
    }
    return record;
}

} // namespace

std::string_view VXChangeJournal::nameOfKind(Kind kind)
{
    for (auto& [name, known] : kinds) {
        if (known == kind)
            return name;
    }
    return {};
}

std::optional<VXChangeJournal::Kind> VXChangeJournal::kindNamed(std::string_view name)
{
    for (auto& [known, kind] : kinds) {
        if (known == name)
            return kind;
    }
    return std::nullopt;
}

VXChangeJournal::VXChangeJournal(std::string path)
    : m_path(std::move(path))
{
}

void VXChangeJournal::load()
{
    m_entries.clear();
    if (m_path.empty())
        return;
    VXArchiveStore::read(m_path, [this](RefPtr<Object> root) {
        auto* list = dynamicDowncast<Array>(root.get());
        if (!list)
            return false;
        for (auto* object : *list) {
            if (m_entries.size() == maximumEntries)
                break;
            if (auto entry = entryOf(object))
                append(std::move(*entry));
        }
        return true;
    });
}

RefPtr<Error> VXChangeJournal::save() const
{
    if (m_path.empty())
        return nullptr;
    if (m_entries.empty()) {
        ::unlink(m_path.c_str());
        return nullptr;
    }
    std::vector<Ref<Object>> records;
    records.reserve(m_entries.size());
    for (auto& entry : m_entries)
        records.push_back(recordOf(entry));
    return VXArchiveStore::write(Array::create(std::move(records)).ptr(), m_path, VXArchiveStore::Folder::MadeWhenMissing);
}

size_t VXChangeJournal::countForAccount(std::string_view account) const
{
    return static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) { return entry.account == account; }));
}

VXChangeJournal::Entry* VXChangeJournal::firstForAccount(std::string_view account)
{
    auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) { return entry.account == account; });
    return found == m_entries.end() ? nullptr : &*found;
}

std::optional<int32_t> VXChangeJournal::pendingValue(bool follow, std::string_view target, std::string_view account) const
{
    for (auto entry = m_entries.rbegin(); entry != m_entries.rend(); ++entry) {
        bool isFollow = entry->kind == Kind::Follow || entry->kind == Kind::Unfollow;
        bool isFavorite = entry->kind == Kind::Favorite || entry->kind == Kind::Unfavorite;
        if ((follow ? isFollow : isFavorite) && entry->target == target && entry->account == account)
            return entry->value();
    }
    return std::nullopt;
}

void VXChangeJournal::append(Entry entry)
{
    if (m_entries.size() == maximumEntries)
        return;
    entry.sequence = m_nextSequence++;
    m_entries.push_back(std::move(entry));
}

VXChangeJournal::Entry* VXChangeJournal::entryWithSequence(uint64_t sequence)
{
    auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) { return entry.sequence == sequence; });
    return found == m_entries.end() ? nullptr : &*found;
}

void VXChangeJournal::removeEntryWithSequence(uint64_t sequence)
{
    std::erase_if(m_entries, [&](const Entry& entry) { return entry.sequence == sequence; });
}

} // namespace velvox
