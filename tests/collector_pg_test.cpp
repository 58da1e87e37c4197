// velto-collector on a real PostgreSQL 15 (a cluster of the test's own, pg_cluster.h): two
// collectors sharing one database store every record once, also a batch that reaches both at once;
// a collector killed while uploads arrive leaves whole batches only, and the retry completes them;
// a database stopped and started again while uploads arrive costs 503 replies meanwhile and loses
// nothing; --keep-days drops whole old days. The API, /healthz and /metrics are checked on the way.
// Collectors run as child processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "collector_client.h"
#include "delivery.h"
#include "pg_cluster.h"

namespace {

using namespace vtest::client;

// n records of one batch: {"category":"<tag>-<i>","dtype":"event",...}.
std::vector<std::string> batch_records(const std::string& tag, int n) {
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i)
        out.push_back(R"({"category":")" + tag + "-" + std::to_string(i) +
                      R"(","dtype":"event","dvalue":"1","sid":"{s}"})");
    return out;
}

std::pair<long, std::string> send_batch(const Collector& c, const std::string& batch, int records) {
    return post(c.url("/v1/file"), kMultipart, batch_upload(batch, batch_records(batch, records)));
}

// Batches whose records are not all there, or there more than once ("" when every one is whole).
std::string broken_batches(const vtest::PgCluster& pg, const std::string& like, int records) {
    std::string out;
    for (const std::string& b :
         pg.column("SELECT batch || ':' || count(*) FROM records WHERE batch LIKE '" + like +
                   "' GROUP BY batch HAVING count(*) <> " + std::to_string(records)))
        out += b + " ";
    return out;
}

class CollectorPg : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(pg_.ok()) << pg_.log(); }

    vtest::PgCluster pg_;
    vtest::TempDir dir_;
};

TEST_F(CollectorPg, TwoCollectorsShareOneDatabaseAndStoreEachRecordOnce) {
    Collector a(dir_, "a", {"--db", pg_.url()}), b(dir_, "b", {"--db", pg_.url()});
    ASSERT_TRUE(a.start()) << a.err();
    ASSERT_TRUE(b.start()) << b.err();
    // The library's own uploads, one run through each collector.
    for (const Collector* c : {&a, &b}) {
        const std::string url = c->url(""), tag = c == &a ? "a" : "b";
        RUN_SCENARIO({
            vtest::write_conf(root, url, {{"SEND_BEGINPOINTS", "ON"}, {"SEND_ENDPOINTS", "ON"}});
            record_session(root, tag, "pg-test");
        });
    }
    ASSERT_TRUE(vtest::wait_until([&] { return pg_.value("SELECT count(*) FROM records") == "8"; }, 30000))
        << pg_.value("SELECT count(*) FROM records");

    // The same batches sent to both collectors at once: each stored once, the other copy a repeat.
    std::atomic<int> taken{0};
    const auto send_batches = [&](const Collector* c) {
        for (int i = 0; i < 20; ++i)
            taken += send_batch(*c, "{both-" + std::to_string(i) + "}", 10).second == kOk;
    };
    std::thread to_b(send_batches, &b);
    send_batches(&a);
    to_b.join();
    EXPECT_EQ(40, taken.load());
    EXPECT_EQ("200", pg_.value("SELECT count(*) FROM records WHERE batch LIKE '{both-%'"));
    EXPECT_EQ("", broken_batches(pg_, "{both-%", 10));
    EXPECT_EQ("20", pg_.value("SELECT count(*) FROM requests WHERE result = 'repeat'"));

    // The API reads the shared database: both runs on either page, text search in any case.
    const std::string listed = get(b.url("/api/records?q=SCREEN-A")).second;
    EXPECT_TRUE(vtest::has(listed, R"("total":1})")) << listed;
    EXPECT_TRUE(vtest::has(listed, R"("category":"screen-a")")) << listed;
    const std::string stats = get(a.url("/api/stats")).second;
    EXPECT_TRUE(vtest::has(stats, R"({"records":208,)")) << stats;
    EXPECT_TRUE(vtest::has(stats, R"("repeats":20,)")) << stats;
    const std::string timeline = get(a.url("/api/timeline?step=60")).second;  // every record, by hour
    EXPECT_EQ("208", pg_.value("SELECT sum((s->>'count')::int) FROM json_array_elements('" + timeline +
                               "'::json->'slices') s"))
        << timeline;
    EXPECT_EQ(200, get(a.url("/healthz")).first);
    const std::string metrics = get(a.url("/metrics")).second + get(b.url("/metrics")).second;
    EXPECT_TRUE(vtest::has(metrics, "velto_requests_total{endpoint=\"/v1/file\",result=\"repeat\"}"))
        << metrics;
    EXPECT_TRUE(vtest::has(metrics, "velto_database_write_seconds_count ")) << metrics;
    EXPECT_EQ(0, a.stop());
    EXPECT_EQ(0, b.stop());

    // A database that holds another program's tables is refused, with one line saying why.
    pg_.column("CREATE DATABASE other");
    pg_.column("CREATE TABLE accounts (id INTEGER)", "other");
    Collector foreign(dir_, "foreign", {"--db", pg_.url("other")});
    EXPECT_FALSE(foreign.start());
    EXPECT_EQ(2, foreign.wait(20000));
    EXPECT_TRUE(vtest::has(foreign.err(), "holds tables of another program")) << foreign.err();
    EXPECT_EQ(1u, vtest::lines_of(foreign.err()).size()) << foreign.err();
}

TEST_F(CollectorPg, KilledCollectorLeavesWholeBatchesAndTheRetryCompletesThem) {
    Collector c(dir_, "c", {"--db", pg_.url()});
    ASSERT_TRUE(c.start()) << c.err();
    const int records = 50;
    std::atomic<int> answered{0}, attempted{0};
    std::thread sender([&] {
        for (int i = 0; i < 100000; ++i) {
            attempted = i + 1;
            if (send_batch(c, "{kill-" + std::to_string(i) + "}", records).second != kOk) return;
            ++answered;
        }
    });
    EXPECT_TRUE(vtest::wait_until([&] { return answered >= 30; }, 60000));
    c.signal(SIGKILL);
    c.wait(20000);
    sender.join();
    EXPECT_EQ("", broken_batches(pg_, "{kill-%", records));
    EXPECT_LE(answered.load(), atoi(pg_.value("SELECT count(DISTINCT batch) FROM records").c_str()));

    // The library sends every batch it had no {"status":0} for again; all of them end up whole.
    ASSERT_TRUE(c.start()) << c.err();
    for (int i = answered; i < attempted; ++i)
        EXPECT_EQ(kOk, send_batch(c, "{kill-" + std::to_string(i) + "}", records).second) << i;
    EXPECT_EQ(std::to_string(attempted.load()),
              pg_.value("SELECT count(DISTINCT batch) FROM records WHERE batch LIKE '{kill-%'"));
    EXPECT_EQ("", broken_batches(pg_, "{kill-%", records));
    EXPECT_EQ(0, c.stop());
}

TEST_F(CollectorPg, DatabaseStoppedAndStartedMeanwhileGives503AndLosesNothing) {
    Collector c(dir_, "c", {"--db", pg_.url(), "--db-timeout", "1000"});
    ASSERT_TRUE(c.start()) << c.err();
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0}, unavailable{0};
    std::thread sender([&] {
        // Each batch is sent until it is taken, as the library does.
        for (int i = 0; !stop; ++i) {
            for (int attempt = 0; attempt < 1000 && !stop; ++attempt) {
                const auto reply = send_batch(c, "{stop-" + std::to_string(i) + "}", 10);
                if (reply.second == kOk) break;
                if (reply.first == 503) ++unavailable;
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            ++answered;
        }
    });
    EXPECT_TRUE(vtest::wait_until([&] { return answered >= 20; }, 60000));
    ASSERT_TRUE(pg_.stop());
    EXPECT_TRUE(vtest::wait_until([&] { return unavailable > 0; }, 30000));
    EXPECT_EQ(503, get(c.url("/healthz")).first);
    ASSERT_TRUE(pg_.start()) << pg_.log();
    const int before = answered;
    EXPECT_TRUE(vtest::wait_until([&] { return answered >= before + 20; }, 60000));
    stop = true;
    sender.join();

    EXPECT_EQ(200, get(c.url("/healthz")).first);
    const int stored = atoi(pg_.value("SELECT count(DISTINCT batch) FROM records").c_str());
    EXPECT_GE(stored, answered - 1);  // the last one may have been cut short by the stop
    EXPECT_EQ("", broken_batches(pg_, "{stop-%", 10));
    EXPECT_TRUE(vtest::has(get(c.url("/metrics")).second, "result=\"unavailable\"}"));
    EXPECT_EQ(0, c.stop());
    EXPECT_TRUE(vtest::has(c.out(), "uploads answered 503 (database unavailable)")) << c.out();
}

// The partition of records of a day (days since the epoch, UTC): records_pYYYYMMDD.
std::string partition_of(int64_t day) {
    const time_t t = static_cast<time_t>(day * 86400);
    struct tm parts;
    char name[32] = "";
    if (gmtime_r(&t, &parts)) strftime(name, sizeof name, "records_p%Y%m%d", &parts);
    return name;
}

// Retention by whole days: with --keep-days 3, today and the two days before stay with their
// records; older days go, and requests older than three days with them.
TEST_F(CollectorPg, KeepDaysDropsOldDaysAndKeepsRecentOnes) {
    Collector first(dir_, "first", {"--db", pg_.url()});
    ASSERT_TRUE(first.start()) << first.err();
    EXPECT_EQ(kOk, send_batch(first, "{today}", 2).second);
    EXPECT_EQ(0, first.stop());
    const int64_t today = time(nullptr) / 86400;
    for (int back : {2, 3, 9}) {
        const std::string at = std::to_string((today - back) * 86400000 + 1000), tag = std::to_string(back);
        for (const std::string& sql :
             {"CREATE TABLE IF NOT EXISTS " + partition_of(today - back) +
                  " PARTITION OF records FOR VALUES FROM (" + std::to_string((today - back) * 86400000) +
                  ") TO (" + std::to_string((today - back + 1) * 86400000) + ")",
              "INSERT INTO records (time, kind, category, action, label, sid, cid, brand, pver, batch, "
              "request,"
              " record) VALUES (" +
                  at + ", 'event', 'back-" + tag + "', '', '', '', '', '', '', '', 0, '{}')",
              "INSERT INTO requests (time, endpoint, peer, scheme, bytes, result, batch, records) VALUES (" +
                  at + ", '/v1/file', 'back-" + tag + "', 'http', 0, 'ok', '', 1)"})
            ASSERT_EQ("<no row>", pg_.value(sql)) << sql;
    }

    Collector keeping(dir_, "keeping", {"--db", pg_.url(), "--keep-days", "3"});
    ASSERT_TRUE(keeping.start()) << keeping.err();
    const std::string exists = "SELECT count(*) FROM pg_tables WHERE tablename = '";
    EXPECT_TRUE(
        vtest::wait_until([&] { return pg_.value(exists + partition_of(today - 3) + "'") == "0"; }, 30000));
    EXPECT_EQ("0", pg_.value(exists + partition_of(today - 9) + "'"));
    for (int64_t day : {today - 2, today}) EXPECT_EQ("1", pg_.value(exists + partition_of(day) + "'")) << day;
    EXPECT_EQ("back-2 {today}-0 {today}-1",
              pg_.value("SELECT string_agg(category, ' ' ORDER BY category) FROM records"));
    EXPECT_EQ("back-2", pg_.value("SELECT string_agg(peer, ' ') FROM requests WHERE peer LIKE 'back-%'"));
    EXPECT_EQ(0, keeping.stop());
}

}  // namespace
