// Rendering the dashboard of 50 activities: the framework's engine with the
// host's template (filters included) and with a template without filters,
// beside the mustache engine (Debian's kainjow-mustache) rendering the same
// data from an equivalent template, in one run.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <TemplateEngine/RegexTemplateMatcher.h>
#include <TemplateEngine/TemplateEngine.h>
#include <VelvoxKit/VXActivity.h>
#include <VelvoxKit/VXResourceController.h>
#include <VelvoxKit/VXTemplateFilters.h>

#include <benchmark/benchmark.h>
#include <kainjow/mustache.hpp>

#include <filesystem>
#include <fstream>

using namespace velvox;

namespace {

constexpr std::string_view plainTemplate = R"(<h1>Dashboard of {{ me }}</h1>
{% for activity in activities %}<div class="card activity" id="activity-{{ loop.index }}">
<img class="artwork" alt="" src="{{ activity.track.artworkURL }}">
<h2 class="title">{{ activity.track.title }}</h2>
<p class="meta">by {{ activity.track.user.username }} · {{ activity.track.playbackCount }} plays · {{ activity.track.genre }}</p>
</div>
{% /for %})";

constexpr std::string_view mustacheTemplate = R"(<h1>Dashboard of {{me}}</h1>
{{#activities}}<div class="card activity" id="activity-{{index}}">
<img class="artwork" alt="" src="{{artworkURL}}">
<h2 class="title">{{title}}</h2>
<p class="meta">by {{username}} · {{playbackCount}} plays · {{genre}}</p>
</div>
{{/activities}})";

struct Dashboard {
    Ref<Array> activities = Array::create();
    kainjow::mustache::data mustacheData;
    std::string dashboardTemplate;
};

Dashboard& dashboard()
{
    static Dashboard* made = [] {
        auto folder = std::filesystem::temp_directory_path() / "velvox-bench-templates";
        std::filesystem::create_directories(folder);
        setenv("XDG_DATA_HOME", folder.c_str(), 1);
        VXResourceController::setSharedResourceController(VXResourceController::create());
        std::ifstream in(VELVOX_SHARED_DATA "/json/api_page.json");
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        auto page = objectFromJSONData(*Data::create(bytes));
        auto* dashboard = new Dashboard;
        std::vector<Ref<Object>> activities;
        kainjow::mustache::data list { kainjow::mustache::data::type::list };
        size_t index = 0;
        for (auto* record : *downcast<Array>(page.get())) {
            auto wrapper = Dictionary::create({ { "type", String::create("track").ptr() },
                { "created_at", String::create("2026/11/01 10:00:00 +0000").ptr() }, { "origin", record } });
            auto activity = VXActivity::create(wrapper.ptr());
            auto* track = activity->track();
            kainjow::mustache::data item;
            item.set("index", std::to_string(index++));
            item.set("artworkURL", track->artworkURL() ? track->artworkURL()->absoluteString()->str() : "");
            item.set("title", track->title() ? track->title()->str() : "");
            auto user = track->user();
            item.set("username", user && user->username() ? user->username()->str() : "");
            item.set("playbackCount", std::to_string(track->playbackCount()));
            item.set("genre", track->genre() ? track->genre()->str() : "");
            list.push_back(item);
            activities.push_back(std::move(activity));
        }
        dashboard->activities = Array::create(std::move(activities));
        dashboard->mustacheData.set("me", "ines");
        dashboard->mustacheData.set("activities", list);
        return dashboard;
    }();
    return *made;
}

Ref<TemplateEngine> engine()
{
    auto engine = TemplateEngine::templateEngine();
    engine->setMatcher(RegexTemplateMatcher::matcherWithTemplateEngine(*engine.ptr()));
    auto filters = VXTemplateFilters::filter();
    engine->loadFilter(*filters.ptr());
    return engine;
}

void EngineDashboardTemplate(benchmark::State& state)
{
    auto& data = dashboard();
    auto renderer = engine();
    auto path = Bundle::mainBundle().pathForResource("views/dashboard", "html");
    auto variables = Dictionary::create({ { "activities", data.activities.ptr() } });
    size_t bytes = 0;
    for (auto _ : state) {
        auto page = renderer->processTemplateInFileAtPath(path ? &*path : nullptr, variables.ptr());
        bytes = page ? page->view().size() : 0;
    }
    state.counters["page bytes"] = static_cast<double>(bytes);
}
BENCHMARK(EngineDashboardTemplate)->Unit(benchmark::kMicrosecond);

void EnginePlainTemplate(benchmark::State& state)
{
    auto& data = dashboard();
    auto renderer = engine();
    auto variables = Dictionary::create({ { "activities", data.activities.ptr() }, { "me", String::create("ines").ptr() } });
    size_t bytes = 0;
    for (auto _ : state) {
        auto page = renderer->processTemplate(plainTemplate, variables.ptr());
        bytes = page ? page->view().size() : 0;
    }
    state.counters["page bytes"] = static_cast<double>(bytes);
}
BENCHMARK(EnginePlainTemplate)->Unit(benchmark::kMicrosecond);

void MustachePlainTemplate(benchmark::State& state)
{
    auto& data = dashboard();
    size_t bytes = 0;
    for (auto _ : state) {
        kainjow::mustache::mustache view { std::string(mustacheTemplate) };
        auto page = view.render(data.mustacheData);
        bytes = page.size();
    }
    state.counters["page bytes"] = static_cast<double>(bytes);
}
BENCHMARK(MustachePlainTemplate)->Unit(benchmark::kMicrosecond);

void MustacheParsedOnce(benchmark::State& state)
{
    auto& data = dashboard();
    kainjow::mustache::mustache view { std::string(mustacheTemplate) };
    size_t bytes = 0;
    for (auto _ : state)
        bytes = view.render(data.mustacheData).size();
    state.counters["page bytes"] = static_cast<double>(bytes);
}
BENCHMARK(MustacheParsedOnce)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
