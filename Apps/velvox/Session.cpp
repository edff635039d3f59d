#include "Session.h"

#include "Commands.h"

#include <JSONCodec/JSONCodec.h>
#include <VelvoxAPI/VXVelvoxAPI.h>
#include <VelvoxKit/VXKit.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include <cmath>
#include <cstdio>
#include <fstream>

namespace velvox::app {

Session::Session(const ServiceOptions& options)
    : m_options(options)
{
}

Session::~Session()
{
    finish(ExitSuccess);
    VXResourceController::setSharedResourceController(nullptr);
    if (m_sandbox)
        m_sandbox->stop();
}

int Session::open(const char* command)
{
    m_command = command;
    std::string baseURL = m_options.baseURL;
    if (baseURL.empty()) {
        if (const char* fromEnvironment = getenv("VELVOX_BASE_URL"))
            baseURL = fromEnvironment;
    }
    std::string token;
    if (!baseURL.empty()) {
        if (!resolveToken(m_options.token, m_options.tokenFile, command, token))
            return ExitUsage;
    } else {
        m_sandbox = std::make_unique<sandbox::SandboxService>(sandbox::SandboxService::Options {});
        std::string problem;
        if (!m_sandbox->start(&problem)) {
            fprintf(stderr, "velvox %s: cannot start the embedded sandbox: %s\n", command, problem.c_str());
            return ExitFailure;
        }
        baseURL = m_sandbox->baseURL();
        token = m_sandbox->token();
    }
    std::string problem;
    auto api = VXVelvoxAPI::create(baseURL, token, &problem);
    if (!api) {
        fprintf(stderr, "velvox %s: %s\n", command, problem.c_str());
        return ExitUsage;
    }
    api->setTimeout(30);
    // A service that fails for a moment (no connection, 429, 5xx) is asked
    // again for what may be asked twice: lists, records, follow changes.
    api->setRetryPolicy(VXVelvoxAPI::RetryPolicy::recommended());
    // The host makes the store's folder, which the store itself only fills,
    // so that the identity map is kept from the first run on.
    FileManager::defaultManager().createDirectoryAtPath(
        stringByAppendingPathComponent(applicationSupportDirectory(), "Velvox"), true, nullptr, 0700);
    // The shared store: it loads the identity map of earlier runs, and finish()
    // saves it. Runs over long lists would grow the map without end; the most
    // recent objects of each class are what a next run is likely to show.
    VXResourceController::Options storeOptions;
    storeOptions.archivedObjectsPerClass = archivedObjectsPerClass;
    // Whatever a service sends ends in an error to report, never in a raise.
    storeOptions.unreadableAnswerPolicy = VXUnreadableAnswerPolicy::Report;
    // Tracks the service is still processing are polled in the background:
    // once each, a few at a time, so that the lists a person asked for come first.
    storeOptions.mergesTrackRefreshes = true;
    storeOptions.maximumTrackRefreshesInFlight = 2;
    m_store = VXResourceController::create(VXAPIController::create(api.get()).ptr(), storeOptions);
    VXResourceController::setSharedResourceController(m_store);
    return ExitSuccess;
}

bool Session::waitFor(const std::function<bool()>& condition, double seconds)
{
    return RunLoop::current().runUntil(condition, seconds);
}

RefPtr<VXUser> Session::signIn(int& code)
{
    RefPtr<VXUser> me;
    RefPtr<Error> failure;
    bool done = false;
    // The signed-in account of an earlier run is known; asking again keeps it current.
    m_store->meUserForceRefresh(true, [&](VXUser* user, Error* error) {
        me = user;
        failure = error;
        done = true;
    });
    if (!waitFor([&] { return done; })) {
        code = fail("sign-in", noAnswer().ptr());
        return nullptr;
    }
    if (!me)
        code = fail("sign-in", failure.get());
    return me;
}

Ref<Error> Session::noAnswer()
{
    return Error::create(URLErrorDomain, 28, "No answer from the service.");
}

int Session::fail(const char* command, Error* error)
{
    if (!error) {
        fprintf(stderr, "velvox %s: the service's answer was not understood\n", command);
        return ExitService;
    }
    std::string message = printableExcerpt(error->localizedDescription()->view(), 512);
    bool network = error->domain()->isEqualToString(URLErrorDomain);
    int64_t status = error->code();
    if (network) {
        fprintf(stderr, "velvox %s: network failure: %s\n", command, message.c_str());
        return ExitNetwork;
    }
    // Answers that do not fit the models, and paths refused before sending,
    // are the service's doing: their messages say what was wrong.
    if (error->domain()->isEqualToString(VXResourceErrorDomain) || error->domain()->isEqualToString(VXRemoteCollectionErrorDomain)
        || (error->domain()->isEqualToString(VXVelvoxAPIErrorDomain) && error->code() == VXVelvoxAPIErrorInvalidResource)) {
        fprintf(stderr, "velvox %s: %s\n", command, message.c_str());
        return ExitService;
    }
    if (status == 401 || status == 403) {
        fprintf(stderr, "velvox %s: not authorised (%lld). Pass a valid token with --token, --token-file FILE or $VELVOX_TOKEN.\n",
            command, static_cast<long long>(status));
        return ExitNotAuthorised;
    }
    if (status == 404) {
        fprintf(stderr, "velvox %s: not found\n", command);
        return ExitNotFound;
    }
    fprintf(stderr, "velvox %s: the service failed: %s\n", command, message.c_str());
    return ExitService;
}

int Session::pageCap()
{
    // Tests of the cut lower it, so as not to load a thousand pages.
    if (const char* lower = getenv("VELVOX_TEST_MAXIMUM_PAGES")) {
        int pages = atoi(lower);
        if (pages > 0 && pages < maximumPages)
            return pages;
    }
    return maximumPages;
}

int Session::loadCollection(const char* command, VXRemoteCollectionController& collection)
{
    if (!is<VXCursorCollectionController>(collection))
        collection.setPageSize(50);
    bool first = true;
    int pages = 0;
    int cap = pageCap();
    for (; pages < cap && (first || (m_options.all && collection.hasMoreItems())); ++pages) {
        collection.loadMoreItemsForReloadOperationType(first ? ZURemoteCollectionReloadOperationType::Reload : ZURemoteCollectionReloadOperationType::LoadMore, !first);
        first = false;
        if (!waitFor([&] { return !collection.isLoadingItems(); }))
            return fail(command, noAnswer().ptr());
        if (collection.lastError())
            return fail(command, collection.lastError());
    }
    // A service that never ends a list gets a bounded one, and the user hears of the cut.
    if (m_options.all && collection.hasMoreItems()) {
        fprintf(stderr, "velvox %s: stopped after %d pages; the list goes on\n", command, pages);
        m_listCut = true;
    }
    return ExitSuccess;
}

void Session::print(const std::string& text)
{
    if (m_options.quiet)
        return;
    fwrite(text.data(), 1, text.size(), stdout);
}

int Session::finish(int code)
{
    if (m_finished)
        return code;
    m_finished = true;
    // The application terminates: the store saves its archives. A save that
    // fails loses what this run changed (a play, say), so it is said.
    if (m_store) {
        if (auto error = m_store->save()) {
            fprintf(stderr, "velvox %s: cannot save the store's archives: %s\n", m_command.c_str(), error->localizedDescription()->utf8());
            code = code ? code : ExitFailure;
        }
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "velvox: cannot write the output\n");
        return code ? code : ExitFailure;
    }
    return code;
}

// MARK: Forms

std::string relativeDate(Date* date)
{
    if (!date)
        return "";
    auto text = ZUPastDateFormatter::create()->stringForObjectValue(date);
    return text ? text->str() : "";
}

std::string durationText(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0)
        return "";
    // Beyond any real track (and beyond what the clock text can count).
    if (seconds >= longestDuration)
        return "too long";
    return stringWithMilliseconds(static_cast<int64_t>(seconds * 1000))->str();
}

Ref<Dictionary> jsonRecord(ZUObject& object)
{
    auto record = MutableDictionary::create();
    for (auto* descriptor : object.propertyTable().descriptors()) {
        auto value = descriptor->accessor().get(object);
        if (!value) {
            record->setObject(&Null::null(), descriptor->source().view());
            continue;
        }
        if (auto* transformer = descriptor->cachedTransformer(); transformer && transformer->allowsReverseTransformation()) {
            auto reversed = transformer->reverseTransformedValue(value.get());
            // An identifier that is no number stays the text it is, not 0.
            if (auto* text = dynamicDowncast<String>(value.get()); text && is<Number>(reversed.get())
                && downcast<Number>(reversed.get())->stringValue()->view() != text->view())
                reversed = value;
            value = reversed;
        }
        if (is<URL>(value.get()))
            value = downcast<URL>(value.get())->absoluteString();
        if (is<Date>(value.get()))
            value = Number::create(downcast<Date>(value.get())->timeIntervalSince1970());
        record->setObject(value ? value.get() : &Null::null(), descriptor->source().view());
    }
    return record;
}

std::string jsonText(Object& object)
{
    RefPtr<Error> error;
    RefPtr<String> text;
    if (auto* array = dynamicDowncast<Array>(&object))
        text = JSONStringWithOptions(*array, JCSerializeOptionPretty, &error);
    else if (auto* dictionary = dynamicDowncast<Dictionary>(&object))
        text = JSONStringWithOptions(*dictionary, JCSerializeOptionPretty, &error);
    return text ? escapingControlCharacters(text->view()) + "\n" : "null\n";
}

std::string escapingControlCharacters(std::string_view json)
{
    // The encoder escapes only the controls below U+0020. DEL and the C1
    // controls (U+0080..U+009F, C2 80..C2 9F in UTF-8) only ever stand in
    // its strings, where a \u escape means the same character.
    std::string out;
    out.reserve(json.size());
    for (size_t i = 0; i < json.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(json[i]);
        unsigned char next = i + 1 < json.size() ? static_cast<unsigned char>(json[i + 1]) : 0;
        if (c == 0x7F) {
            out += "\\u007f";
        } else if (c == 0xC2 && next >= 0x80 && next <= 0x9F) {
            out += format("\\u%4.4x", next);
            ++i;
        } else
            out += static_cast<char>(c);
    }
    return out;
}

std::string printable(const std::string& text)
{
    std::string out = printableExcerpt(text, 4096);
    for (auto& c : out) {
        if (c == '\n' || c == '\t')
            c = ' ';
    }
    return out;
}

std::string columns(const std::vector<std::vector<std::string>>& unsafeRows)
{
    std::vector<std::vector<std::string>> rows;
    rows.reserve(unsafeRows.size());
    for (auto& row : unsafeRows) {
        std::vector<std::string> cells;
        for (auto& cell : row)
            cells.push_back(printable(cell));
        rows.push_back(std::move(cells));
    }
    std::vector<size_t> widths;
    auto width = [](const std::string& text) {
        size_t count = 0;
        for (unsigned char c : text)
            count += (c & 0xC0) != 0x80; // code points, for aligned UTF-8
        return count;
    };
    for (auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            if (widths.size() <= i)
                widths.push_back(0);
            widths[i] = std::max(widths[i], std::min<size_t>(width(row[i]), 48));
        }
    }
    std::string out;
    for (auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            std::string cell = row[i];
            // Cut long cells at a code point boundary.
            if (width(cell) > 48) {
                size_t kept = 0, at = 0;
                for (; at < cell.size() && kept < 47; ++at)
                    kept += (static_cast<unsigned char>(cell[at]) & 0xC0) != 0x80;
                while (at < cell.size() && (static_cast<unsigned char>(cell[at]) & 0xC0) == 0x80)
                    ++at;
                cell = cell.substr(0, at) + "…";
            }
            line += cell;
            if (i + 1 < row.size())
                line += std::string(widths[i] - width(cell) + 2, ' ');
        }
        out += line + "\n";
    }
    return out;
}

} // namespace velvox::app
