// Tests of the client identity: the order of sources and storage rules over fake leaves, the
// wrapping and cleaning of "did", the Linux leaves on a temporary home directory, and data_init over
// damaged or hostile preferences files.
#include "ClientSign.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <pthread.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <vector>

#include "BaseInfo.h"
#include "ComInc.h"
#include "OsApi.h"
#include "scenario.h"
#include "velto.h"

namespace {

using Velto::ClientIdLeaves;

// Leaves with a scripted machine; records what the logic stored.
class FakeLeaves : public ClientIdLeaves {
  public:
    std::string uuid, stored, set_id, created_id;
    bool exists = false;
    int writes = 0;

    std::string platform_uuid() override { return uuid; }
    std::string random_uuid() override { return "AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE"; }
    bool prefs_exists() override { return exists; }
    std::string prefs_client_id() override { return stored; }
    void prefs_set_client_id(const std::string& id) override {
        set_id = id;
        ++writes;
    }
    void prefs_create(const std::string& id) override {
        created_id = id;
        ++writes;
    }
};

// An upper-case textual UUID: 8-4-4-4-12 hexadecimal digits.
bool is_upper_uuid(const std::string& s) {
    return std::regex_match(s, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"));
}

const char kRandomForm[] = "{[AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE]}";

TEST(ClientSign, SourcesAndStorage) {
    enum Store { NONE, SET, CREATE };
    struct Case {
        const char* what;
        const char* uuid;
        bool exists;
        const char* stored;
        const char* id;
        Store store;
    } cases[] = {
        {"stored id of 10 kept", "U-1", true, "0123456789", "0123456789", NONE},
        {"raw machine id stored by an earlier version kept", "U-1", true, "{3D1219C7C4C5404AAA1F}",
         "{3D1219C7C4C5404AAA1F}", NONE},
        {"stored id of 9 replaced", "U-1", true, "012345678", "{U-1}", SET},
        {"file without id", "U-1", true, "", "{U-1}", SET},
        {"no uuid, file without id", "", true, "short", kRandomForm, SET},
        {"new file from uuid", "U-1", false, "", "{U-1}", CREATE},
        {"new file, random id", "", false, "", kRandomForm, CREATE},
        {"absent file ignores stale read", "U-1", false, "0123456789", "{U-1}", CREATE},
        {"10 characters in 11 bytes kept", "U-1", true, "012345678\xC3\xA9", "012345678\xC3\xA9", NONE},
        {"5 characters in 10 bytes replaced", "U-1", true, "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9",
         "{U-1}", SET},
    };
    for (const Case& c : cases) {
        FakeLeaves leaves;
        leaves.uuid = c.uuid;
        leaves.exists = c.exists;
        leaves.stored = c.stored;
        EXPECT_EQ(c.id, Velto::client_sign(leaves)) << c.what;
        EXPECT_EQ(c.store == NONE ? 0 : 1, leaves.writes) << c.what;
        EXPECT_EQ(c.store == SET ? c.id : "", leaves.set_id) << c.what;
        EXPECT_EQ(c.store == CREATE ? c.id : "", leaves.created_id) << c.what;
    }
}

TEST(ClientSign, WrapAndSanitize) {
    const std::pair<const char*, const char*> cases[] = {
        {"{ABCDEFGH-1}", "{ABCDEFGH-1}"},       {"ABCDEFGHIJ", "{ABCDEFGHIJ}"},  // no braces: wrapped
        {"my id\tnumber", "{my0id0number}"},                                     // space and control byte
        {"{caf\xC3\xA9-id-1}", "{caf00-id-1}"},  // every byte of a non-ASCII character
        {"{del\x7Fid-123}", "{del0id-123}"},
    };
    for (const auto& [stored, did] : cases) {
        FakeLeaves leaves;
        leaves.exists = true;
        leaves.stored = stored;
        EXPECT_EQ(did, Velto::sanitize_client_sign(Velto::wrap_client_id(Velto::client_sign(leaves))))
            << stored;
    }
    EXPECT_EQ("{}", Velto::sanitize_client_sign(Velto::wrap_client_id("")));
    EXPECT_EQ(" ", Velto::sanitize_client_sign(" "));  // too short to clean
    EXPECT_EQ("{", Velto::wrap_client_id("{"));
}

// The preferences directory and file of a HOME directory.
std::string prefs_dir(const std::string& home) {
    return home + "/Library/Preferences";
}
const char kPrefsFile[] = "/com.orvexa.helper_compact.plist";

typedef std::map<std::string, std::string> Prefs;

// The string members of the preferences file's dictionary; {"?": content} when unreadable.
Prefs read_prefs(const std::string& home) {
    std::string xml = vtest::read_file(prefs_dir(home) + kPrefsFile);
    plist_t root = nullptr;
    plist_from_memory(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    if (!root || plist_get_node_type(root) != PLIST_DICT) return {{"?", xml}};
    Prefs out;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(root, &it);
    char* key = nullptr;
    plist_t val = nullptr;
    for (plist_dict_next_item(root, it, &key, &val); key; plist_dict_next_item(root, it, &key, &val)) {
        uint64_t len = 0;
        const char* text = plist_get_string_ptr(val, &len);
        out[key] = text ? std::string(text, len) : "<not a string>";
        free(key);
    }
    free(it);
    plist_free(root);
    return out;
}

const char kXmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";

std::string xml_plist(const std::string& body) {
    return kXmlHead + body + "</plist>\n";
}

void write_prefs(const std::string& home, const std::string& bytes) {
    std::filesystem::create_directories(prefs_dir(home));
    vtest::write_file(prefs_dir(home) + kPrefsFile, bytes);
}

// A new id is the platform UUID in braces, or the random form when the machine has none.
void expect_new_id(const std::string& id) {
    const std::string uuid = Velto::platform_client_id_leaves().platform_uuid();
    EXPECT_TRUE(uuid.empty() ? id.size() == 40 && id.compare(0, 2, "{[") == 0 &&
                                   id.compare(38, 2, "]}") == 0 && is_upper_uuid(id.substr(2, 36))
                             : id == "{" + uuid + "}")
        << id;
}

// A binary property list of n arrays, each holding the next; the last one holds the first (cyclic) or
// nothing. References and offsets take 3 bytes.
std::string binary_chain(uint32_t n, bool cyclic) {
    auto be3 = [](std::string& out, uint64_t v) {
        for (int shift = 16; shift >= 0; shift -= 8) out += static_cast<char>((v >> shift) & 0xFF);
    };
    std::string out = "bplist00";
    std::vector<uint64_t> offsets;
    for (uint32_t i = 0; i < n; ++i) {
        offsets.push_back(out.size());
        bool last = i + 1 == n;
        out += static_cast<char>(last && !cyclic ? 0xA0 : 0xA1);
        if (!last || cyclic) be3(out, last ? 0 : i + 1);
    }
    uint64_t table = out.size();
    for (uint64_t at : offsets) be3(out, at);
    out += std::string(6, '\0') + "\x03\x03";
    for (uint64_t v : {uint64_t(n), uint64_t(0), table})
        for (int shift = 56; shift >= 0; shift -= 8) out += static_cast<char>((v >> shift) & 0xFF);
    return out;
}

// A dictionary of strings in libplist's binary form.
std::string binary_dict(const Prefs& values) {
    plist_t dict = plist_new_dict();
    for (const auto& kv : values)
        plist_dict_set_item(dict, kv.first.c_str(), plist_new_string(kv.second.c_str()));
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(dict, &bin, &len);
    std::string out(bin, len);
    free(bin);
    plist_free(dict);
    return out;
}

// data_init on a thread with a small stack, as a host may call it from a worker thread.
int init_on_small_stack(const std::string& root) {
    std::pair<const std::string*, int> call = {&root, -1};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 512 * 1024);
    pthread_t thread;
    auto body = [](void* arg) -> void* {
        auto* c = static_cast<std::pair<const std::string*, int>*>(arg);
        c->second = data_init(c->first->c_str(), "brand");
        return nullptr;
    };
    if (pthread_create(&thread, &attr, body, &call) == 0) pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    return call.second;
}

// A dictionary holding depth nested arrays.
std::string nested_xml(int depth) {
    std::string body = "<dict><key>deep</key>";
    for (int i = 0; i < depth; ++i) body += "<array>";
    for (int i = 0; i < depth; ++i) body += "</array>";
    return xml_plist(body + "</dict>");
}

struct PrefsCase {
    const char* name;
    std::string bytes;
    const char* did;  // nullptr: a fresh id
};

std::string id_plist(const std::string& value) {
    return xml_plist("<dict><key>client ID</key>" + value + "</dict>");
}

const PrefsCase kPrefsCases[] = {
    {"StoredIdCleaned", id_plist("<string>my id\xC3\xA9xyz1</string>"), "{my0id00xyz1}"},
    {"BinaryFile", binary_dict({{"client ID", "{binary-id-01}"}, {"x", "y"}}), "{binary-id-01}"},
    {"ShallowNestingKept",
     xml_plist("<dict><key>a</key><array><dict/><array><dict><key>b</key><true/></dict></array></array>"
               "<key>client ID</key><string>{shallow-id-1}</string></dict>"),
     "{shallow-id-1}"},
    {"NulInsideId", id_plist(std::string("<string>0123") + '\0' + "456789abc</string>"), nullptr},
    {"IntegerId", id_plist("<integer>12345678901</integer>"), nullptr},
    {"DictionaryId", id_plist("<dict><key>a</key><string>0123456789</string></dict>"), nullptr},
    {"RootIsArray", xml_plist("<array><string>client ID</string><string>0123456789</string></array>"),
     nullptr},
    {"TruncatedXml", std::string(kXmlHead) + "<dict><key>client ID</key><string>0123", nullptr},
    {"BinaryJunk", std::string("\x00\xff\x13\x37junk\x80\x81", 10), nullptr},
    {"BinaryHeaderJunkTable", "bplist00" + std::string(40, '\xEE'), nullptr},
    {"OverOneMiB",
     id_plist("<string>{too-large-1}</string><key>pad</key><string>" + std::string(1 << 20, 'p') +
              "</string>"),
     nullptr},
    {"XmlNested65000Deep", nested_xml(65000), nullptr},
    {"BinaryNested100000Deep", binary_chain(100000, false), nullptr},
    {"BinaryCycle", binary_chain(3, true), nullptr},
};

// Whatever the preferences file holds, data_init succeeds; an id that cannot be read cleanly gives a
// fresh one, which the file then holds. Each case is one process.
class PrefsFile : public ::testing::TestWithParam<PrefsCase> {};

TEST_P(PrefsFile, DataInitGetsUsableId) {
    const PrefsCase& c = GetParam();
    RUN_SCENARIO({
        const std::string home = getenv("HOME");
        write_prefs(home, c.bytes);
        ASSERT_EQ(0, init_on_small_stack(root));
        const std::string did = Velto::g_base_info["did"];
        if (c.did) {
            EXPECT_EQ(c.did, did);
        } else {
            expect_new_id(did);
            EXPECT_EQ(did, read_prefs(home)["client ID"]);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Contents, PrefsFile, ::testing::ValuesIn(kPrefsCases),
                         [](const ::testing::TestParamInfo<PrefsCase>& info) { return info.param.name; });

// The Linux leaves, with HOME moved to a temporary directory for the process of this test.
class LinuxLeaves : public ::testing::Test {
  protected:
    void SetUp() override { setenv("HOME", home_.path().c_str(), 1); }

    vtest::TempDir home_;
    ClientIdLeaves& leaves_ = Velto::platform_client_id_leaves();
};

// The machine's id is the keyed hash of its identifier, never the identifier itself; the key is
// fixed (a changed key would change every machine's "did").
TEST_F(LinuxLeaves, UuidForms) {
    std::string a = leaves_.random_uuid();
    EXPECT_TRUE(is_upper_uuid(a)) << a;
    EXPECT_NE(a, leaves_.random_uuid());
    EXPECT_EQ("B398700F-3973-42A6-8F4C-FA0E392A46E2",
              Velto::keyed_platform_id("0123456789abcdef0123456789abcdef"));
    std::string source;
    for (const char* path : {"/sys/class/dmi/id/product_uuid", "/etc/machine-id"}) {
        if (source.empty()) source = vtest::read_file(path).substr(0, 36);
    }
    source.resize(std::min(source.find('\n'), source.size()));
    const std::string id = leaves_.platform_uuid();
    EXPECT_EQ(source.empty() ? "" : Velto::keyed_platform_id(source), id);
    EXPECT_TRUE(source.empty() || (is_upper_uuid(id) && id.find(source) == std::string::npos)) << id;
}

// A new file holds the new id alone and is read back; a stored id that is too short is replaced and
// the file's other keys are kept.
TEST_F(LinuxLeaves, PreferencesFileWrittenAndReadBack) {
    const std::string& home = home_.path();
    ASSERT_FALSE(leaves_.prefs_exists());
    std::string id = Velto::client_sign(leaves_);
    expect_new_id(id);
    EXPECT_EQ((Prefs{{"client ID", id}}), read_prefs(home));
    Velto::StrList files;
    Velto::get_files(prefs_dir(home), files);
    EXPECT_EQ(1u, files.size());  // no temporary file left behind
    EXPECT_EQ(id, Velto::client_sign(leaves_));

    write_prefs(home, binary_dict({{"client ID", "012345678"}, {"Client Sign", "x"}, {"other", "keep me"}}));
    id = Velto::client_sign(leaves_);
    expect_new_id(id);
    EXPECT_EQ((Prefs{{"client ID", id}, {"Client Sign", "x"}, {"other", "keep me"}}), read_prefs(home));
}

}  // namespace
