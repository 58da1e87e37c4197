// Prints, one "<item> <hex>" line each, the bytes the library writes to disk and to the wire for
// fixed inputs: the envelopes (Base64, AES, fencode, deflate), rendered JSON, a "sdk.msg" with two
// records, a "sdk.cf", and the request bodies of a form upload (zipped and not) and of a file upload
// as a loopback collector receives them. Nothing depends on the clock, on random GUIDs or on the
// machine, so two builds of the library (64-bit and 32-bit) must print the same lines; the test
// tests/bytes/same_bytes_test.cpp compares them.
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "HttpClient.h"
#include "Log.h"
#include "MsgFile.h"
#include "Uploader.h"
#include "Util.h"
#include "Zip.h"
#include "raw_server.h"
#include "scenario.h"

namespace {

using Items = std::vector<std::pair<std::string, std::string>>;

const long long kTime = 1700000000;  // every time stamp written

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

// A record with every kind of byte the escaping and the envelope treat apart.
std::string record_text() {
    Velto::StrMap rec = {{"dtype", "event"},
                         {"ostime", Velto::Util::ltoa(kTime)},
                         {"evt", Velto::Util::trim_json("quote\" back\\ tab\t nl\n \x01 caf\xc3\xa9")},
                         {"empty", ""},
                         {"num", Velto::Util::ltoa(-9000000000LL)}};
    return Velto::Util::to_json(rec);
}

void envelope_items(Items& items) {
    std::string all_bytes;
    for (int i = 0; i < 256; ++i) all_bytes += static_cast<char>(i);
    items.emplace_back("base64",
                       Velto::base64_encode(reinterpret_cast<const unsigned char*>(all_bytes.data()),
                                            static_cast<unsigned int>(all_bytes.size())));

    const std::string plain = "0123456789abcdef0123456789abcdef!";  // two blocks and one byte
    std::vector<unsigned char> sealed(plain.size() + 32, 0);
    int sealed_len = 0;
    Velto::AES_Encode2(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                       sealed.data(), sealed_len);
    items.emplace_back("aes.raw", std::string(reinterpret_cast<const char*>(sealed.data()),
                                              static_cast<size_t>(sealed_len > 0 ? sealed_len : 0)));
    std::vector<unsigned char> text(4 * ((plain.size() + 32) / 3 + 1) + 1, 0);
    Velto::AES_Encode(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                      text.data());
    items.emplace_back("aes.base64", reinterpret_cast<const char*>(text.data()));

    items.emplace_back("record.json", record_text());
    items.emplace_back("record.fencode", Velto::Util::fencode(record_text()));

    std::string long_text;
    for (int i = 0; i < 200; ++i) long_text += record_text() + "\n";
    std::vector<unsigned char> zipped(long_text.size() + 100, 0);
    int zipped_len = static_cast<int>(zipped.size());
    Velto::Zip(long_text.c_str(), zipped.data(), zipped_len);
    items.emplace_back("zip", std::string(reinterpret_cast<const char*>(zipped.data()),
                                          static_cast<size_t>(zipped_len > 0 ? zipped_len : 0)));
}

// The base fields every record carries and the view the record calls render them into.
void base_items(Items& items) {
    const char* const fields[][2] = {
        {"tid", "T-32"},        {"pid", "4242"},      {"pver", "2.0.1"},        {"uip", "10.0.0.1"},
        {"plang", "en-US"},     {"ostype", "Linux"},  {"osver", "6.1"},         {"osbit", "32"},
        {"oslang", "de_DE"},    {"oszone", "-120"},   {"psource", "web"},       {"uid", "user \"1\""},
        {"did", "{0123-4567}"}, {"procname", "host"}, {"modver", "1.1.1.1113"},
    };
    for (const auto& f : fields) Velto::g_base_info.set(f[0], f[1]);
    Velto::BaseView view;
    Velto::g_base_info.refresh(view);
    items.emplace_back("base.view", view.json);
}

void file_items(const std::string& root, Items& items) {
    Velto::MsgFile msg;
    if (msg.open() == 0) {
        msg.append(kTime, Velto::Util::fencode(record_text()));
        msg.append(kTime + 1, Velto::Util::fencode("{\"dtype\":\"screen\"}"));
        msg.close();
    }
    items.emplace_back("sdk.msg", vtest::read_file(root + "sdk.msg"));

    Velto::Config& conf = *Velto::Config::obj_;
    conf.set("CONF_UPD_TIME", kTime);
    conf.set("LAST_SEND", kTime);
    conf.set("SEND_GAP", 60);
    conf.save_conf(true);
    items.emplace_back("sdk.cf", vtest::read_file(root + "sdk.cf"));
}

// The body a loopback collector received for one upload ("" when none arrived).
template <typename Send>
std::string received_body(Send&& send) {
    vcollect::RawServer server;
    if (!server.ok()) return "";
    send(server);
    std::vector<vcollect::RawRequest> got = server.requests();
    return got.empty() ? "" : got.front().body;
}

void upload_items(Items& items) {
    const std::string batch = record_text() + "\n" + record_text() + "\n";
    Velto::Config& conf = *Velto::Config::obj_;
    for (const char* zip : {"ON", "OFF"}) {
        conf.set("ZIP_DATA", zip);
        items.emplace_back(std::string("upload.form.zip") + zip, received_body([&](vcollect::RawServer& s) {
                               Velto::send_msg(batch, s.url("/v1/data").c_str(), "data",
                                               Velto::Uploader().context());
                           }));
        items.emplace_back(std::string("upload.file.zip") + zip, received_body([&](vcollect::RawServer& s) {
                               Velto::send_file(batch, s.url("/v1/file").c_str(), "sdk_0123-4567.log",
                                                Velto::Uploader().context());
                           }));
    }
}

}  // namespace

int main() {
    try {
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/velto-bytes-XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) return 2;
        const std::string root = pattern + "/";
        Velto::Config& conf = *Velto::Config::obj_;
        conf.load_default();
        conf.set("ROOT_DIR", root);
        conf.set("CONF_URL", "http://127.0.0.1:9/");
        Velto::Log::obj_->init((root + "sdk.log").c_str());

        Items items;
        envelope_items(items);
        base_items(items);
        file_items(root, items);
        upload_items(items);
        for (const auto& item : items) std::printf("%s %s\n", item.first.c_str(), hex(item.second).c_str());

        std::error_code ignored;
        std::filesystem::remove_all(pattern, ignored);
        return 0;
    } catch (...) {
        return 3;
    }
}
