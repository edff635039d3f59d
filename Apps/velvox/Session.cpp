#include "Session.h"

#include "Commands.h"

#include <JSONCodec/JSONCodec.h>
#include <VelvoxAPI/VXVelvoxAPI.h>
#include <VelvoxKit/VXKit.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include "ObservedAPI.h"

#include <VelvoxKit/VXActivity.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

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

std::string resolvedBaseURL(const ServiceOptions& options)
{
    return resolvedBaseURL(options.baseURL);
}

namespace {

int interruptPipe[2] { -1, -1 };
volatile sig_atomic_t interruption = 0;

void interrupted(int signal)
{
    int saved = errno;
    if (interruption) {
        // A second Ctrl-C ends at once, as people expect of it.
        ::signal(signal, SIG_DFL);
        raise(signal);
    }
    interruption = signal;
    char byte = 1;
    [[maybe_unused]] auto written = write(interruptPipe[1], &byte, 1);
    errno = saved;
}

} // namespace

void catchInterruptions()
{
    if (interruptPipe[0] >= 0 || pipe2(interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction action {};
    action.sa_handler = interrupted;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int Session::open(const char* command)
{
    m_command = command;
    ServiceTarget target;
    std::string problem;
    switch (prepareService({ m_options.baseURL, m_options.token, m_options.tokenFile, m_options.folderName }, target, problem)) {
    case ServiceProblem::Token:
        fprintf(stderr, "velvox %s: %s\n", command, problem.c_str());
        return ExitFailure;
    case ServiceProblem::Sandbox:
        fprintf(stderr, "velvox %s: cannot start the embedded sandbox: %s\n", command, problem.c_str());
        return ExitFailure;
    case ServiceProblem::None:
        break;
    }
    m_sandbox = std::move(target.sandbox);
    auto api = ObservedAPI::create(target.baseURL, target.token, { showsFeedback(), m_options.verbose }, &problem);
    if (!api) {
        fprintf(stderr, "velvox %s: %s\n", command, problem.c_str());
        return ExitUsage;
    }
    api->setTimeout(m_options.timeout);
    api->setConnectTimeout(std::min(m_options.timeout, api->connectTimeout()));
    // A service that fails for a moment (no connection, 429, 5xx) is asked
    // again for what may be asked twice: lists, records, follow changes.
    api->setRetryPolicy(VXVelvoxAPI::RetryPolicy::recommended());
    if (m_options.verbose)
        fprintf(stderr, "* %s (Authorization: OAuth [redacted]); archives in %s\n", printable(target.baseURL).c_str(), target.folder.c_str());
    // The shared store: it loads the identity map of earlier runs, and finish() saves it.
    auto storeOptions = hostStoreOptions();
    if (!memoryBudgetOf(m_options, storeOptions.memoryBudget, problem)) {
        fprintf(stderr, "velvox %s: %s\n", command, problem.c_str());
        return ExitUsage;
    }
    m_store = VXResourceController::create(VXAPIController::create(api.get()).ptr(), storeOptions);
    m_keptAtStart = m_store->queuedChangeCount();
    catchInterruptions();
    VXResourceController::setSharedResourceController(m_store);
    return ExitSuccess;
}

bool parseByteSize(const std::string& text, size_t& bytes)
{
    if (text.empty() || text.size() > 24 || !std::isdigit(static_cast<unsigned char>(text[0])))
        return false;
    size_t end = 0;
    unsigned long long number = 0;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) {
        if (number > (1ull << 63) / 10)
            return false;
        number = number * 10 + static_cast<unsigned>(text[end++] - '0');
    }
    std::string unit = text.substr(end);
    int shift = unit.empty() || unit == "B" ? 0 : unit == "K" || unit == "KB" ? 10 : unit == "M" || unit == "MB" ? 20 : unit == "G" || unit == "GB" ? 30 : -1;
    if (shift < 0 || number > ((1ull << 63) >> shift))
        return false;
    bytes = static_cast<size_t>(number << shift);
    return true;
}

bool memoryBudgetOf(const ServiceOptions& options, std::optional<size_t>& budget, std::string& problem)
{
    const char* fromEnvironment = getenv("VELVOX_MEMORY_BUDGET");
    std::string text = !options.memoryBudget.empty() ? options.memoryBudget : fromEnvironment ? fromEnvironment : "";
    budget.reset();
    if (text.empty())
        return true;
    size_t bytes = 0;
    if (!parseByteSize(text, bytes)) {
        problem = "the memory budget must be a size such as 64M or 33554432, not \"" + printable(text) + "\"";
        return false;
    }
    budget = bytes;
    return true;
}

bool Session::waitFor(const std::function<bool()>& condition, double seconds)
{
    // The wake-up of a signal, watched while this wait runs.
    char drained[16];
    auto watch = interruptPipe[0] < 0 ? Subscription() : RunLoop::current().watchSocket(interruptPipe[0], SocketEvent::Readable, [&](int fd, SocketEvent) {
        while (read(fd, drained, sizeof drained) > 0) { }
    });
    bool met = RunLoop::current().runUntil([&] { return interruption || condition(); }, seconds > 0 ? seconds : m_options.timeout + 5);
    if (interruption)
        throw Interrupted { interruption };
    return met;
}

RefPtr<VXUser> Session::signIn(int& code, bool* unreachable)
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
    if (!done && !waitFor([&] { return done; }))
        failure = noAnswer();
    if (!me && unreachable && (!failure || VXVelvoxAPI::isUnreachable(failure.get()))) {
        *unreachable = true;
        code = ExitNetwork;
        return nullptr;
    }
    if (!me)
        code = fail("sign-in", failure.get());
    return me;
}

bool Session::isKept(Error* error)
{
    return error && error->domain()->isEqualToString(VXQueuedChangeErrorDomain) && error->code() == VXQueuedChangeErrorQueued;
}

int Session::kept(const std::string& change, Dictionary* record)
{
    if (m_options.json) {
        auto marked = record->mutableCopy();
        marked->setObject(Number::withBool(true).ptr(), "queued");
        print(jsonText(marked));
    } else {
        print("kept: " + change + " (the service cannot be reached; the next command that reaches it sends it)\n");
    }
    return ExitSuccess;
}

void Session::sendKeptChanges()
{
    if (!m_store || !m_keptAtStart)
        return;
    m_store->sendQueuedChanges();
    try {
        waitFor([&] { return !m_store->isSendingQueuedChanges(); });
    } catch (const Interrupted&) {
        return; // what is left waits for the next command
    }
    size_t left = m_store->queuedChangeCount();
    size_t sent = m_keptAtStart > left ? m_keptAtStart - left : 0;
    if (sent && !m_options.quiet)
        fprintf(stderr, "velvox: sent %zu change%s kept while the service could not be reached\n", sent, sent == 1 ? "" : "s");
    if (auto* refused = m_store->lastQueuedChangeError())
        fprintf(stderr, "velvox: %s\n", printable(refused->localizedDescription()->str()).c_str());
}

Ref<Error> Session::noAnswer()
{
    return Error::create(URLErrorDomain, 28, "No answer from the service.");
}

namespace {

// What a failing answer's body says: the "error_message" texts of the
// service's {"errors": [...]} record, else nothing.
std::string serviceMessages(Error& error)
{
    auto* body = error.userInfo() ? error.userInfo()->objectForKey<Data>(VXVelvoxAPIResponseBodyKey) : nullptr;
    if (!body || body->length() > 65536)
        return {};
    auto decoded = JSONObject(*String::create(body->view()));
    auto* record = dynamicDowncast<Dictionary>(decoded.get());
    auto* errors = record ? record->objectForKey<Array>("errors") : nullptr;
    std::string messages;
    if (!errors)
        return messages;
    for (auto* item : *errors) {
        auto* entry = dynamicDowncast<Dictionary>(item);
        auto* message = entry ? entry->objectForKey<String>("error_message") : nullptr;
        if (!message || message->isEmpty())
            continue;
        messages += (messages.empty() ? "" : "; ") + printableExcerpt(message->view(), 512);
    }
    return messages;
}

// "A: B: A" as "A: B": the URL loader's description can repeat libcurl's own.
std::string withoutRepeats(const std::string& message)
{
    std::vector<std::string> parts;
    for (size_t start = 0; start <= message.size();) {
        size_t end = message.find(": ", start);
        std::string part = message.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (std::find(parts.begin(), parts.end(), part) == parts.end())
            parts.push_back(part);
        if (end == std::string::npos)
            break;
        start = end + 2;
    }
    std::string out;
    for (auto& part : parts)
        out += (out.empty() ? "" : ": ") + part;
    return out;
}

} // namespace

int Session::fail(const char* command, Error* error, const std::string& what)
{
    if (!error) {
        fprintf(stderr, "velvox %s: the service's answer was not understood\n", command);
        return ExitService;
    }
    std::string message = withoutRepeats(printableExcerpt(error->localizedDescription()->view(), 512));
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
    std::string said = serviceMessages(*error);
    if (status == 401 || status == 403) {
        fprintf(stderr, "velvox %s: not authorised (%lld). Pass a valid token with --token, --token-file FILE or $VELVOX_TOKEN.\n",
            command, static_cast<long long>(status));
        return ExitNotAuthorised;
    }
    if (status == 404) {
        if (what.empty())
            fprintf(stderr, "velvox %s: not found\n", command);
        else
            fprintf(stderr, "velvox %s: %s was not found\n", command, printable(what).c_str());
        return ExitNotFound;
    }
    if (!said.empty())
        fprintf(stderr, "velvox %s: %s (%lld): %s\n", command, status >= 500 ? "the service failed" : "the service refused it",
            static_cast<long long>(status), said.c_str());
    else
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

int Session::loadCollection(const char* command, VXRemoteCollectionController& collection, const std::string& what)
{
    if (!is<VXCursorCollectionController>(collection))
        collection.setPageSize(50);
    bool first = true;
    int pages = 0;
    int cap = pageCap();
    // On a terminal, a list that keeps people waiting says which page it is at.
    bool spinning = false;
    static const char* const frames[] = { "|", "/", "-", "\\" };
    int frame = 0;
    Subscription spinner;
    if (showsFeedback()) {
        spinner = RunLoop::current().scheduleRepeatingTimer(0.25, [&] {
            fprintf(stderr, "\r%s loading page %d…\033[K", frames[frame++ % 4], pages + 1);
            spinning = true;
        });
    }
    struct Clear {
        bool& spinning;
        ~Clear()
        {
            if (spinning)
                fputs("\r\033[K", stderr);
        }
    } clear { spinning };
    for (; pages < cap && (first || (m_options.all && collection.hasMoreItems())); ++pages) {
        collection.loadMoreItemsForReloadOperationType(first ? ZURemoteCollectionReloadOperationType::Reload : ZURemoteCollectionReloadOperationType::LoadMore, !first);
        first = false;
        if (!waitFor([&] { return !collection.isLoadingItems(); }))
            return fail(command, noAnswer().ptr());
        if (collection.lastError())
            return fail(command, collection.lastError(), what);
    }
    spinner = {};
    // A service that never ends a list gets a bounded one, and the user hears of the cut.
    if (m_options.all && collection.hasMoreItems()) {
        fprintf(stderr, "velvox %s: stopped after %d pages; the list goes on\n", command, pages);
        m_listCut = true;
    }
    return ExitSuccess;
}

void Session::print(const std::string& text)
{
    if (m_options.quiet || m_writeError)
        return;
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size())
        m_writeError = errno ? errno : EIO;
}

bool Session::showsFeedback() const
{
    return !m_options.quiet && isatty(STDERR_FILENO);
}

int Session::finish(int code)
{
    if (m_finished)
        return code;
    m_finished = true;
    sendKeptChanges();
    // The application terminates: the store saves its archives. A save that
    // fails loses what this run changed (a play, say), so it is said.
    if (m_store) {
        if (auto error = m_store->save()) {
            fprintf(stderr, "velvox %s: cannot save the store's archives: %s\n", m_command.c_str(), error->localizedDescription()->utf8());
            code = code ? code : ExitFailure;
        }
    }
    if (!m_writeError && (fflush(stdout) != 0 || ferror(stdout)))
        m_writeError = errno ? errno : EIO;
    // A reader that stopped reading (velvox tracks --all | head -1) wanted no more.
    if (m_writeError == EPIPE)
        return code;
    if (m_writeError) {
        fprintf(stderr, "velvox: cannot write the output: %s\n", strerror(m_writeError));
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

Ref<Object> jsonIdentifier(const std::string& identifier)
{
    // Decimal, without a sign or leading zeros, and within 64 bits: a number.
    bool decimal = !identifier.empty() && identifier.size() <= 18 && (identifier == "0" || identifier[0] != '0')
        && identifier.find_first_not_of("0123456789") == std::string::npos;
    if (decimal)
        return Number::withInteger(std::stoll(identifier));
    return String::create(identifier);
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
        // Lists (a track's tags, an activity's) stay lists: their transformers'
        // reverse texts are the models' business, not a script's.
        if (auto* list = dynamicDowncast<Array>(value.get())) {
            auto items = MutableArray::create();
            for (auto* item : *list)
                items->addObject(is<String>(item) ? Ref<Object>(*item) : Ref<Object>(item->description()));
            record->setObject(items, descriptor->source().view());
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
    // An activity as its table row shows it: the track, who made it, the note.
    if (auto* activity = dynamicDowncast<VXActivity>(&object)) {
        auto* track = activity->track();
        RefPtr<VXUser> owner;
        if (track && track->userIdentifier())
            owner = VXResourceController::sharedResourceController().cachedResource<VXUser>(track->userIdentifier());
        record->setObject(track ? Ref<Object>(jsonRecord(*track)) : Ref<Object>(Null::null()), "track");
        record->setObject(owner ? Ref<Object>(jsonRecord(*owner)) : Ref<Object>(Null::null()), "user");
        record->setObject(activity->sharingNote() ? Ref<Object>(jsonRecord(*activity->sharingNote())) : Ref<Object>(Null::null()), "sharing_note");
    }
    return record;
}

std::string jsonText(Object& object)
{
    RefPtr<Error> error;
    RefPtr<String> text;
    // The encoder writes an empty container over lines; scripts and people read "[]".
    if (auto* array = dynamicDowncast<Array>(&object)) {
        if (!array->count())
            return "[]\n";
        text = JSONStringWithOptions(*array, JCSerializeOptionPretty, &error);
    } else if (auto* dictionary = dynamicDowncast<Dictionary>(&object)) {
        if (!dictionary->count())
            return "{}\n";
        text = JSONStringWithOptions(*dictionary, JCSerializeOptionPretty, &error);
    }
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

namespace {

size_t displayWidth(const std::string& text)
{
    size_t count = 0;
    for (unsigned char c : text)
        count += (c & 0xC0) != 0x80; // code points, for aligned UTF-8
    return count;
}

// The cell cut to `width` code points, the last of them "…".
std::string cut(const std::string& cell, size_t width)
{
    if (displayWidth(cell) <= width)
        return cell;
    if (!width)
        return "";
    size_t kept = 0, at = 0;
    for (; at < cell.size() && kept < width - 1; ++at)
        kept += (static_cast<unsigned char>(cell[at]) & 0xC0) != 0x80;
    while (at < cell.size() && (static_cast<unsigned char>(cell[at]) & 0xC0) == 0x80)
        ++at;
    return cell.substr(0, at) + "…";
}

bool isNumeric(const std::string& cell)
{
    return !cell.empty() && cell.find_first_not_of("0123456789,.") == std::string::npos && std::isdigit(static_cast<unsigned char>(cell[0]));
}

} // namespace

size_t terminalWidth()
{
    if (!isatty(STDOUT_FILENO))
        return 0;
    struct winsize size {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    if (const char* columns = getenv("COLUMNS"); columns && atoi(columns) > 0)
        return static_cast<size_t>(atoi(columns));
    return 80;
}

std::string columns(const std::vector<std::vector<std::string>>& unsafeRows, size_t lineWidth)
{
    static constexpr size_t widest = 48, narrowest = 6;
    std::vector<std::vector<std::string>> rows;
    rows.reserve(unsafeRows.size());
    for (auto& row : unsafeRows) {
        std::vector<std::string> cells;
        for (auto& cell : row)
            cells.push_back(printable(cell));
        rows.push_back(std::move(cells));
    }
    std::vector<size_t> widths;
    std::vector<bool> numeric;
    for (size_t r = 0; r < rows.size(); ++r) {
        for (size_t i = 0; i < rows[r].size(); ++i) {
            if (widths.size() <= i) {
                widths.push_back(0);
                numeric.push_back(true);
            }
            widths[i] = std::max(widths[i], std::min(displayWidth(rows[r][i]), widest));
            // The heading does not count; empty cells do not make a column text.
            if (r > 0 && !rows[r][i].empty() && !isNumeric(rows[r][i]))
                numeric[i] = false;
        }
    }
    // Too wide for the terminal: the widest text column gives way first.
    if (lineWidth) {
        auto total = [&] {
            size_t sum = widths.empty() ? 0 : 2 * (widths.size() - 1);
            for (auto w : widths)
                sum += w;
            return sum;
        };
        while (total() > lineWidth) {
            size_t column = widths.size();
            for (size_t i = 0; i < widths.size(); ++i) {
                if (!numeric[i] && widths[i] > narrowest && (column == widths.size() || widths[i] > widths[column]))
                    column = i;
            }
            if (column == widths.size())
                break;
            widths[column] -= std::min(widths[column] - narrowest, total() - lineWidth);
        }
    }
    std::string out;
    for (auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            std::string cell = cut(row[i], widths[i]);
            std::string padding(widths[i] - displayWidth(cell), ' ');
            bool last = i + 1 == row.size();
            if (numeric[i])
                line += padding + cell;
            else
                line += cell + (last ? "" : padding);
            if (!last)
                line += "  ";
        }
        out += line + "\n";
    }
    return out;
}

std::string grouped(uint64_t count)
{
    std::string digits = std::to_string(count);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<size_t>(at), ",");
    return digits;
}

std::string byteSize(uint64_t bytes)
{
    if (bytes < 1000)
        return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes);
    if (bytes < 1000 * 1000)
        return format(value < 10000 ? "%.1f KB" : "%.0f KB", value / 1e3);
    if (bytes < 1000ull * 1000 * 1000)
        return format("%.1f MB", value / 1e6);
    return format("%.1f GB", value / 1e9);
}

bool writeUserFile(const std::string& path, std::string_view contents, std::string& problem)
{
    std::string folder = stringByDeletingLastPathComponent(path);
    struct stat info {};
    if (!folder.empty() && folder != path && ::stat(folder.c_str(), &info) != 0) {
        problem = "the folder " + folder + " does not exist";
        return false;
    }
    // The umask decides who may read it, as for any file the user makes.
    std::string temporary = path + ".velvox-" + std::to_string(getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        problem = strerror(errno);
        return false;
    }
    size_t written = 0;
    while (written < contents.size()) {
        ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        written += static_cast<size_t>(n);
    }
    int failure = written == contents.size() ? 0 : errno ? errno : EIO;
    if (::close(fd) != 0 && !failure)
        failure = errno;
    if (!failure && ::rename(temporary.c_str(), path.c_str()) != 0)
        failure = errno;
    if (failure) {
        ::unlink(temporary.c_str());
        problem = strerror(failure);
        return false;
    }
    return true;
}

} // namespace velvox::app
