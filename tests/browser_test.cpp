// The collector's page in a real browser. velto-collector runs with a fresh database; headless
// Chromium opens its page over the DevTools protocol (support/browser/); only then does the library
// upload records, and the test reads the page's DOM: rows appear without a reload, filters narrow the
// table and the live stream, the counts per kind match the API and what was sent, a record's markup
// shows as text, the session link and a shared URL show their view. A screenshot goes to
// $VELTO_BINARY_DIR/browser/collector.png. Skipped when chromium is not installed.
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "api_helpers.h"
#include "child_process.h"
#include "delivery.h"
#include "devtools.h"

namespace {

// Markup in a record's category and label (at most 64 bytes each): it must show as text.
const char kScript[] = "<script>window.velto_injected=1</script>";
const char kImage[] = "<img src=x onerror=velto_injected=2>";

using vtest::binary_dir;

// A program in its own process group with its output in one file; the group is ended with the object.
class GroupProcess : public vtest::ChildProcess {
  public:
    GroupProcess(std::vector<std::string> args, const std::string& log,
                 const std::vector<std::pair<std::string, std::string>>& env = {})
        : ChildProcess(std::move(args), log, log, env, true) {}
};

class CollectorPage : public ::testing::Test {
  protected:
    void SetUp() override {
        if (vbrowser::chromium_path().empty())
            GTEST_SKIP() << "chromium is not installed (/usr/bin/chromium; .ci/install-deps.sh installs it), "
                            "so the collector's page is not tested";
        const std::vector<int> ports = vtest::free_loopback_ports(2);
        http_port_ = ports[0];
        https_port_ = ports[1];
        collector_.reset(
            new GroupProcess({binary_dir() + "/tools/velto-collector", "--https-port",
                              std::to_string(https_port_), "--http-port", std::to_string(http_port_), "--db",
                              dir_.file("collector.db"), "--cert-dir", dir_.file("cert")},
                             dir_.file("collector.log")));
        ASSERT_TRUE(vtest::wait_until([this] { return !api("/api/stats").empty(); }, 20000))
            << vtest::read_file(dir_.file("collector.log"));
        std::string why;
        ASSERT_TRUE(browser_.start(dir_.file("profile"), dir_.file("chromium.log"), why)) << why;
        ASSERT_TRUE(page_.attach(browser_.devtools_port(), why)) << why;
        ASSERT_TRUE(page_.navigate(url("/"), why)) << why;
        ASSERT_EQ("open", wait_for("document.getElementById('live').dataset.state", "open"));
        // Any reload of the page would drop this.
        js("window.velto_marker = 'same page'");
    }
    void TearDown() override {
        if (HasFailure()) {
            printf("--- collector output:\n%s\n", vtest::read_file(dir_.file("collector.log")).c_str());
            printf("--- page's error line: %s\n", js("document.getElementById('error').textContent").c_str());
        }
    }

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(http_port_) + path;
    }
    // The body of a GET on the collector's API; "" when it did not answer 200.
    std::string api(const std::string& path) const {
        httplib::Client http("127.0.0.1", http_port_);
        http.set_connection_timeout(2, 0);
        http.set_read_timeout(5, 0);
        auto res = http.Get(path.c_str());
        return res && res->status == 200 ? res->body : "";
    }
    // String(value) of a JavaScript expression in the page; "<error: ...>" when it failed.
    std::string js(const std::string& expression) {
        std::string value, why;
        return page_.evaluate(expression, value, why) ? value : "<error: " + why + ">";
    }
    // Polls an expression until it gives want (bounded); its last value.
    std::string wait_for(const std::string& expression, const std::string& want, int timeout_ms = 30000) {
        std::string last;
        vtest::wait_until(
            [&] {
                last = js(expression);
                if (last != want) std::this_thread::sleep_for(std::chrono::milliseconds(100));
                return last == want;
            },
            timeout_ms);
        return last;
    }
    // Sets a filter field as a user would and lets the page apply it ("change" for the selects,
    // the Apply button for the text fields).
    void set_filter(const std::string& field, const std::string& value) {
        const std::string input = "document.getElementById('filter-" + field + "')";
        if (field == "kind") {  // the choices come from the counts, which follow the records
            EXPECT_EQ("true", wait_for("Array.from(" + input + ".options).some(o => o.value === " +
                                           vcollect::json_quote(value) + ")",
                                       "true"));
        }
        const std::string apply = field == "kind" ? input + ".dispatchEvent(new Event('change'))"
                                                  : "document.getElementById('filter-apply').click()";
        EXPECT_EQ("undefined",
                  js("void (" + input + ".value = " + vcollect::json_quote(value) + ", " + apply + ")"));
    }

    // One run of the library in its own process, uploading to the collector over plain HTTP: its
    // "init" record at the start, the records made by record() when it stops.
    void run_host(const std::function<void()>& record) {
        const std::string collector = url("");
        RUN_SCENARIO({
            vtest::write_conf(root, collector, {{"SEND_BEGINPOINTS", "ON"}, {"SEND_ENDPOINTS", "ON"}});
            ASSERT_EQ(0, data_init(root.c_str(), "browser-test"));
            ASSERT_EQ(0, apitest::give_base_info());
            record();
            data_stop();
            ASSERT_TRUE(vtest::wait_until(
                [&] { return vtest::has(vtest::read_file(root + "/sdk.log"), "back thread stop ..."); },
                60000));
        });
    }
    // The demo host, a separate program (so a session of its own), aimed at the collector's HTTPS
    // port; it ends once its last upload is answered.
    void run_demo() {
        vtest::TempDir home;
        GroupProcess demo(
            {binary_dir() + "/examples/velto-demo", home.file("root")}, dir_.file("demo.log"),
            {{"HOME", home.path()}, {"VELTO_COLLECT_HOST", "127.0.0.1:" + std::to_string(https_port_)}});
        EXPECT_EQ(0, demo.wait(90000)) << vtest::read_file(dir_.file("demo.log"));
    }
    // The ids the API lists for a query, joined by ",".
    std::string api_ids(const std::string& query) {
        return js("(b => b.records.map(r => r.id).join(','))(" + api("/api/records?" + query) + ")");
    }

    vtest::TempDir dir_;
    int http_port_ = 0, https_port_ = 0;
    std::unique_ptr<GroupProcess> collector_;
    vbrowser::Chromium browser_;
    vbrowser::DevToolsPage page_;
};

// The table's rows, one value per row joined by ",": column is a cell class or "kind"/"id".
std::string rows(const std::string& column) {
    const std::string value = column == "kind" || column == "id"
                                  ? "tr.dataset." + column
                                  : "tr.querySelector('td." + column + "').textContent";
    return "Array.from(document.querySelectorAll('#records tbody tr[data-id]')).map(tr => " + value +
           ").join(',')";
}

// "kind=N ..." of the panel's column ("recent" or "total").
std::string panel_counts(const std::string& column) {
    const std::string count = "tr.querySelector('td." + column + "').textContent";
    return "Array.from(document.querySelectorAll('#stats tbody tr[data-kind]'))"
           ".map(tr => tr.dataset.kind + '=' + " +
           count + ").join(' ')";
}

TEST_F(CollectorPage, RecordsArriveLiveWithTheirCountsAsText) {
    run_host([] {
        ASSERT_EQ(0, data_screen("MainWindow"));
        ASSERT_EQ(0, data_event("toolbar", "click", "save", 1));
        ASSERT_EQ(0, data_event(kScript, "paste", kImage, 2));
        ASSERT_EQ(0, data_count("export", 1520, "pdf"));
    });

    // Newest first, without a reload.
    EXPECT_EQ("timing,event,event,screenview,init",
              wait_for(rows("kind"), "timing,event,event,screenview,init"));
    EXPECT_EQ("same page", js("window.velto_marker"));
    // The markup is text: no element made of it, no script run.
    EXPECT_EQ(std::string("export,") + kScript + ",toolbar,MainWindow,", js(rows("category")));
    EXPECT_EQ(std::string("pdf,") + kImage + ",save,,", js(rows("label")));
    // The numeric value of each record (an event's dvalue, a timing's duration), and its own time.
    EXPECT_EQ("1520 ms,2,1,,", js(rows("value")));
    EXPECT_EQ("true", js("Array.from(document.querySelectorAll('#records tbody td.ostime'))"
                         ".every(td => /^\\d\\d:\\d\\d:\\d\\d$/.test(td.textContent))"));

    // Export: the filtered records as JSON lines and as CSV, made by the page.
    js("document.getElementById('export-jsonl').click()");
    wait_for("(window.lastExport || '').split('\\n').length", "6");
    EXPECT_EQ("timing", js("JSON.parse(window.lastExport.split('\\n')[0]).kind"));
    js("document.getElementById('export-csv').click()");
    EXPECT_EQ("id,time,ostime,kind,category,action,label,value,sid,cid,brand,pver,batch,request",
              wait_for("window.lastExport.split('\\r\\n')[0]",
                       "id,time,ostime,kind,category,action,label,value,sid,cid,brand,pver,batch,request"));
    EXPECT_EQ("7", js("window.lastExport.split('\\r\\n').length"));  // the header, 5 records, the end
    EXPECT_EQ("0", js("document.querySelectorAll('#records tbody script, #records tbody img').length"));
    EXPECT_EQ("undefined", js("typeof window.velto_injected"));

    // The panel's counts are the API's and what was sent.
    const std::string sent = "event=2 init=1 screenview=1 timing=1";
    EXPECT_EQ(sent, wait_for(panel_counts("recent"), sent));
    EXPECT_EQ(sent, js(panel_counts("total")));
    const std::string stats = api("/api/stats?minutes=10");
    EXPECT_EQ(
        sent,
        js("(s => Object.keys(s.recent.kinds).sort().map(k => k + '=' + s.recent.kinds[k]).join(' '))(" +
           stats + ")"));
    EXPECT_EQ("4",
              js("document.getElementById('filter-kind').options.length - 1"));  // "all" and the four kinds

    // Every upload is listed, with its result.
    const std::string requests = vbrowser::json_member(api("/api/requests"), "total");
    EXPECT_EQ(requests, wait_for("document.querySelectorAll('#requests tbody tr').length", requests));
    EXPECT_EQ("ok", js("document.querySelector('#requests tbody tr td.result').textContent"));

    // A click shows the whole record.
    js("document.querySelector('#records tbody tr[data-kind=timing]').click()");
    const std::string detail = js("document.getElementById('detail-json').textContent");
    EXPECT_TRUE(vtest::has(detail, "{\n  \"")) << detail;
    for (const char* member : {"\"dtype\": \"timing\"", "\"ttime\": \"1520\"", "\"label\": \"pdf\""})
        EXPECT_TRUE(vtest::has(detail, member)) << member << "\n" << detail;

    const std::string shots = binary_dir() + "/browser";
    mkdir(shots.c_str(), 0755);
    std::string why;
    EXPECT_TRUE(page_.screenshot(shots + "/collector.png", why)) << why;
    EXPECT_EQ("\x89PNG", vtest::read_file(shots + "/collector.png").substr(0, 4));
}

TEST_F(CollectorPage, FiltersNarrowTheTableTheStreamAndTheSharedView) {
    run_host([] {
        ASSERT_EQ(0, data_screen("Start"));
        ASSERT_EQ(0, data_event("panel", "click", "save", 1));
        ASSERT_EQ(0, data_event("panel", "click", "open", 1));
        ASSERT_EQ(0, data_count("export", 10, "pdf"));
    });
    ASSERT_EQ("5", wait_for(rows("kind") + ".split(',').length", "5"));

    set_filter("kind", "event");
    EXPECT_EQ("open,save", wait_for(rows("label"), "open,save"));
    set_filter("q", "OPEN");  // the text search ignores case
    EXPECT_EQ("open", wait_for(rows("label"), "open"));
    EXPECT_EQ("kind=event&q=OPEN", js("location.hash.slice(1)"));
    set_filter("q", "");
    EXPECT_EQ("open,save", wait_for(rows("label"), "open,save"));

    // Live records obey the filter: of the demo's records only its events join the table.
    run_demo();
    const std::string events = api_ids("kind=event");
    EXPECT_EQ(events, wait_for(rows("id"), events));
    EXPECT_LE(2u, vtest::count_of(events, ",")) << events;  // the first run's two, and the demo's
    EXPECT_EQ("event", js("Array.from(new Set(" + rows("kind") + ".split(',')))"));
    EXPECT_EQ("same page", js("window.velto_marker"));

    // The session link of the newest row: the demo's records, oldest first, as the API lists them.
    js("document.querySelector('#records tbody tr a.session').click()");
    EXPECT_EQ("true", wait_for("location.hash.includes('order=asc')", "true"));
    const std::string session = api_ids(js("location.hash.slice(1)"));
    EXPECT_EQ(session, wait_for(rows("id"), session));
    EXPECT_FALSE(vtest::has(js(rows("category")), "panel"));  // the first run's session is not in it
    EXPECT_EQ("false", js("document.getElementById('session-view').hidden"));

    // A shared URL opens with its filter (a fresh load, not a change of the hash).
    std::string why;
    ASSERT_TRUE(page_.navigate("about:blank", why)) << why;
    ASSERT_TRUE(page_.navigate(url("/#category=export&q=pdf&order=asc"), why)) << why;
    const std::string exports = api_ids("category=export&q=pdf&order=asc");
    EXPECT_EQ(exports, wait_for(rows("id"), exports));
    EXPECT_EQ("export pdf", js("document.getElementById('filter-category').value + ' ' + "
                               "document.getElementById('filter-q').value"));
}

}  // namespace
