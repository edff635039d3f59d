// The store's journal of changes made while the service could not be reached
// (Options::offlineChanges): keeping them, showing them, and sending them
// once each, in order, when the service answers again.

#include "VXResourceController.h"

#include "VXArchiveStore.h"

#include <Platform/Platform.h>

#include <cmath>

namespace velvox {

namespace {

using Entry = VXChangeJournal::Entry;
using Kind = VXChangeJournal::Kind;

// A change refused this many times for a passing reason (429, 5xx, 401) is
// dropped as refused: nothing is retried forever.
constexpr unsigned maximumTransientRefusals = 8;
constexpr double firstPause = 2;
constexpr double longestPause = 300;
constexpr double longestSettling = 300;

Ref<Error> queuedError()
{
    return Error::create(VXQueuedChangeErrorDomain, VXQueuedChangeErrorQueued,
        "The service could not be reached; the change is kept and will be sent when it can be.");
}

bool isFollowKind(Kind kind)
{
    return kind == Kind::Follow || kind == Kind::Unfollow;
}

// A comment of the service's list that is the entry's: its text, its
// position, and (when known) its author.
bool isCommentOfEntry(Object* object, const Entry& entry, String* me)
{
    auto* comment = dynamicDowncast<Dictionary>(object);
    auto* body = comment ? comment->objectForKey<String>("body") : nullptr;
    if (!body || body->view() != entry.body)
        return false;
    auto* timestamp = comment->objectForKey<Number>("timestamp");
    if (entry.timestamp && (!timestamp || timestamp->longLongValue() != *entry.timestamp))
        return false;
    if (me) {
        auto* user = comment->objectForKey<Dictionary>("user");
        auto* author = user ? user->objectForKey("id") : nullptr;
        if (!author || author->description()->view() != me->view())
            return false;
    }
    return true;
}

} // namespace

const std::string& VXResourceController::journalAccount() const
{
    static const std::string none;
    auto* api = m_apiController ? m_apiController->api() : nullptr;
    return api ? api->accountDigest() : none;
}

std::function<void()> VXResourceController::sendingNextQueuedChange(bool endsSending)
{
    // Through a weak reference: the store may be gone by then.
    std::weak_ptr<VXResourceController*> weakSelf = m_self;
    return [weakSelf, endsSending] {
        if (auto self = weakSelf.lock()) {
            if (endsSending)
                (*self)->m_sendingQueued = false;
            (*self)->sendNextQueuedChange();
        }
    };
}

void VXResourceController::startJournal()
{
    if (!m_options.offlineChanges || !m_apiController)
        return;
    m_journal = VXChangeJournal(VXArchiveStore::changesPath());
    m_journal.load();
    auto& account = journalAccount();
    // What waits shows as made, in order (the latest change of a target last).
    for (auto& entry : m_journal.entries()) {
        if (entry.account == account)
            applyQueuedValue(entry, entry.value());
    }
    std::weak_ptr<VXResourceController*> weakSelf = m_self;
    m_apiController->setAnswerObserver([weakSelf](Error* error) {
        auto self = weakSelf.lock();
        if (!self || VXVelvoxAPI::isUnreachable(error))
            return;
        // The service answers: what waits goes now, not after the pause.
        auto* store = *self;
        if (!store->m_sendingQueued && store->hasQueuedChanges()) {
            store->m_queuedRetry.cancel();
            RunLoop::current().post(store->sendingNextQueuedChange());
        }
    });
    if (hasQueuedChanges())
        RunLoop::current().post(sendingNextQueuedChange());
}

bool VXResourceController::hasQueuedChanges() const
{
    return m_options.offlineChanges && m_journal.countForAccount(journalAccount()) > 0;
}

size_t VXResourceController::queuedChangeCount() const
{
    checkThread(__func__);
    return m_options.offlineChanges ? m_journal.countForAccount(journalAccount()) : 0;
}

std::vector<VXChangeJournal::Entry> VXResourceController::queuedChanges() const
{
    checkThread(__func__);
    std::vector<Entry> entries;
    auto& account = journalAccount();
    for (auto& entry : m_journal.entries()) {
        if (entry.account == account)
            entries.push_back(entry);
    }
    return entries;
}

void VXResourceController::sendQueuedChanges()
{
    checkThread(__func__);
    m_queuedRetry.cancel();
    sendNextQueuedChange();
}

void VXResourceController::discardQueuedChanges()
{
    checkThread(__func__);
    size_t before = queuedChangeCount();
    for (auto& entry : queuedChanges()) {
        m_journal.removeEntryWithSequence(entry.sequence);
        m_journalCallers.erase(entry.sequence);
    }
    m_queuedRetry.cancel();
    journalChanged(before);
}

void VXResourceController::journalChanged(size_t countBefore)
{
    if (auto failure = m_journal.save())
        VXLog("VXResourceController could not save the changes waiting to be sent: %@", failure->localizedDescription());
    if (queuedChangeCount() != countBefore) {
        Ref protectedThis { *this };
        willChangeValueForKey("queuedChangeCount");
        didChangeValueForKey("queuedChangeCount");
    }
}

void VXResourceController::applyQueuedValue(const Entry& entry, int32_t value)
{
    if (entry.isComment() || value < 0)
        return;
    if (isFollowKind(entry.kind)) {
        if (auto user = cachedResource<VXUser>(std::string_view(entry.target)))
            user->applyFollowedByMe(value);
        return;
    }
    auto track = cachedResource<VXTrack>(std::string_view(entry.target));
    if (track && track->userFavorite() != (value == 1))
        track->setValue(Number::create(value == 1), "userFavorite");
}

void VXResourceController::queueChange(Entry entry, bool announce)
{
    size_t before = queuedChangeCount();
    entry.account = journalAccount();
    entry.madeAt = Date::now()->timeIntervalSince1970();
    applyQueuedValue(entry, entry.value());
    m_journal.append(std::move(entry));
    if (announce)
        journalChanged(before);
}

bool VXResourceController::journalChange(Entry entry, ResultBlock block, Subscription* subscription)
{
    if (!m_options.offlineChanges || !m_apiController)
        return false;
    queueChange(std::move(entry));
    uint64_t sequence = m_journal.entries().back().sequence;
    auto slot = std::make_shared<ResultBlock>(std::move(block));
    m_journalCallers[sequence] = slot;
    if (subscription)
        // The change goes on; only the caller's block is dropped.
        *subscription = m_affinity.token([weakSlot = std::weak_ptr<ResultBlock>(slot)] {
            if (auto slot = weakSlot.lock())
                *slot = nullptr;
        },
            slot);
    sendNextQueuedChange();
    return true;
}

void VXResourceController::tellWaitingCallers()
{
    // Every change behind one that cannot go now waits as well.
    auto callers = std::move(m_journalCallers);
    m_journalCallers.clear();
    for (auto& [sequence, slot] : callers) {
        if (auto block = std::exchange(*slot, nullptr))
            block(nullptr, queuedError().ptr());
    }
}

void VXResourceController::tellJournalCaller(uint64_t sequence, Object* json, Error* error)
{
    auto found = m_journalCallers.find(sequence);
    if (found == m_journalCallers.end())
        return;
    auto slot = found->second;
    m_journalCallers.erase(found);
    if (auto block = std::exchange(*slot, nullptr))
        block(json, error);
}

void VXResourceController::retryQueuedChangesLater()
{
    if (!hasQueuedChanges() || m_queuedRetry.isActive())
        return;
    double pause = std::min(longestPause, firstPause * std::ldexp(1.0, static_cast<int>(std::min(m_queuedPauses, 16u))));
    ++m_queuedPauses;
    m_queuedRetry = RunLoop::current().performAfterDelay(pause, sendingNextQueuedChange());
}

void VXResourceController::sendNextQueuedChange()
{
    m_queuedRetry.cancel();
    if (m_sendingQueued || !m_apiController || !m_options.offlineChanges)
        return;
    auto* entry = m_journal.firstForAccount(journalAccount());
    if (!entry)
        return;
    m_sendingQueued = true;
    uint64_t sequence = entry->sequence;
    Ref protectedThis { *this };
    auto answer = [protectedThis, sequence](VXAPIController*, Object* json, Error* error) { protectedThis->queuedChangeAnswered(sequence, json, error); };
    auto target = String::create(entry->target);
    switch (entry->kind) {
    case Kind::Follow:
        m_apiController->startFollowingUserForIdentifier(target.ptr(), std::move(answer));
        return;
    case Kind::Unfollow:
        m_apiController->stopFollowingByUserForIdentifier(target.ptr(), std::move(answer));
        return;
    case Kind::Favorite:
        m_apiController->favoriteTrackIdentifer(target.ptr(), std::move(answer));
        return;
    case Kind::Unfavorite:
        m_apiController->unfavoriteTrackIdentifer(target.ptr(), std::move(answer));
        return;
    case Kind::Comment:
        break;
    }
    if (!entry->attempted) {
        sendQueuedComment(sequence);
        return;
    }
    // It may be on the service already, or get there still: a request whose
    // answer was lost may be taken late. Looked for once that has had time,
    // then sent again only when it is not there.
    double wait = std::min(entry->lookAfter - Date::now()->timeIntervalSince1970(), longestSettling);
    if (wait > 0) {
        m_sendingQueued = false;
        m_queuedRetry = RunLoop::current().performAfterDelay(wait, sendingNextQueuedChange());
        return;
    }
    lookForQueuedComment(sequence, 0);
}

void VXResourceController::lookForQueuedComment(uint64_t sequence, size_t offset)
{
    // The track's comments, page by page, up to a bound.
    constexpr size_t pageSize = 200;
    constexpr size_t largestOffset = 50 * pageSize;
    auto* entry = m_journal.entryWithSequence(sequence);
    if (!entry) {
        m_sendingQueued = false;
        return;
    }
    Ref protectedThis { *this };
    auto parameters = Dictionary::create({ { "limit", String::format("%zu", pageSize).ptr() }, { "offset", String::format("%zu", offset).ptr() } });
    auto resource = String::format("tracks/%@/comments", VXVelvoxAPI::pathSegment(String::create(entry->target).ptr()).ptr());
    auto answer = VXAPICallbackBlockObject::create([protectedThis, sequence, offset](VXAPIController*, Object* json, Error* error) {
        auto* entry = protectedThis->m_journal.entryWithSequence(sequence);
        if (!entry || error) {
            protectedThis->queuedChangeAnswered(sequence, nullptr, error);
            return;
        }
        auto* comments = dynamicDowncast<Array>(json);
        if (comments) {
            for (auto* comment : *comments) {
                if (isCommentOfEntry(comment, *entry, protectedThis->m_meUserIdentifier.get())) {
                    protectedThis->queuedChangeAnswered(sequence, comment, nullptr);
                    return;
                }
            }
        }
        if (comments && comments->count() == pageSize && offset + pageSize < largestOffset)
            protectedThis->lookForQueuedComment(sequence, offset + pageSize);
        else
            protectedThis->sendQueuedComment(sequence);
    });
    m_apiController->performMethod(*String::create("GET"), resource, parameters.ptr(), nullptr,
        Dictionary::create({ { VXAPICallbackBlockKey, answer.get() } }).ptr());
}

void VXResourceController::sendQueuedComment(uint64_t sequence)
{
    auto* entry = m_journal.entryWithSequence(sequence);
    if (!entry) {
        m_sendingQueued = false;
        return;
    }
    // Known as possibly sent before it goes, so that a crash in between
    // makes the next run look for it first.
    entry->attempted = true;
    // Twice the time-out and a second after it goes.
    entry->lookAfter = Date::now()->timeIntervalSince1970() + 2 * m_apiController->api()->timeout() + 1;
    journalChanged(queuedChangeCount());
    auto parameters = MutableDictionary::create();
    parameters->setObject(String::create(entry->body), "comment[body]");
    if (entry->timestamp)
        parameters->setObject(String::format("%d", static_cast<int>(*entry->timestamp)), "comment[timestamp]");
    Ref protectedThis { *this };
    m_apiController->postCommentForTrackIdentifer(String::create(entry->target).ptr(), parameters.ptr(),
        [protectedThis, sequence](VXAPIController*, Object* json, Error* error) { protectedThis->queuedChangeAnswered(sequence, json, error); });
}

void VXResourceController::queuedChangeAnswered(uint64_t sequence, Object* json, Error* error)
{
    Ref protectedThis { *this };
    auto* waiting = m_journal.entryWithSequence(sequence);
    // The next one goes on a later turn (not inside this answer's delivery);
    // the journal counts as sending until then.
    auto next = [this] { RunLoop::current().post(sendingNextQueuedChange(true)); };
    auto pause = [this] {
        m_sendingQueued = false;
        retryQueuedChangesLater();
    };
    if (!waiting) {
        next(); // discarded meanwhile
        return;
    }
    Entry entry = *waiting;
    size_t before = queuedChangeCount();
    if (!error) {
        m_journal.removeEntryWithSequence(sequence);
        m_queuedPauses = 0;
        m_queuedRefusals = 0;
        journalChanged(before);
        tellJournalCaller(sequence, json, nullptr);
        next();
        return;
    }
    if (VXVelvoxAPI::isUnreachable(error)) {
        if (entry.isComment() && !VXVelvoxAPI::mayHaveReachedTheService(error)) {
            waiting->attempted = false;
            journalChanged(before);
        }
        tellWaitingCallers();
        pause();
        return;
    }
    int64_t status = error->domain()->isEqualToString(VXVelvoxAPIErrorDomain) ? error->code() : 0;
    bool passing = status == 401 || status == 408 || status == 429 || (status >= 500 && status <= 599);
    if (passing && ++m_queuedRefusals < maximumTransientRefusals) {
        tellWaitingCallers();
        pause();
        return;
    }
    // Refused: dropped, undone in the model unless a later change of the
    // same target waits, and said.
    m_queuedRefusals = 0;
    m_journal.removeEntryWithSequence(sequence);
    if (!entry.isComment() && !m_journal.pendingValue(isFollowKind(entry.kind), entry.target, entry.account))
        applyQueuedValue(entry, entry.previous);
    auto caller = m_journalCallers.find(sequence);
    if (caller != m_journalCallers.end() && *caller->second) {
        // Its caller still waits and hears the refusal itself.
        journalChanged(before);
        tellJournalCaller(sequence, nullptr, error);
        next();
        return;
    }
    auto info = MutableDictionary::create();
    info->setObject(String::format("The service refused the %s of %s kept while it could not be reached: %@", std::string(VXChangeJournal::nameOfKind(entry.kind)).c_str(),
                        entry.target.c_str(), error->localizedDescription()),
        LocalizedDescriptionKey);
    info->setObject(error, UnderlyingErrorKey);
    willChangeValueForKey("lastQueuedChangeError");
    m_lastQueuedChangeError = Error::create(VXQueuedChangeErrorDomain, VXQueuedChangeErrorRefused, info.ptr());
    didChangeValueForKey("lastQueuedChangeError");
    VXLog("%@", m_lastQueuedChangeError->localizedDescription());
    journalChanged(before);
    next();
}

} // namespace velvox
