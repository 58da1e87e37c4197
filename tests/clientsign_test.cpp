// Tests of the client identity: the order of sources and storage rules over fake leaves, the
// wrapping and cleaning of "did", and the Linux leaves on a temporary home directory.
#include "ClientSign.h"

#include <ctype.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <stdlib.h>

#include <filesystem>
#include <map>

#include "OsApi.h"
#include "scenario.h"

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
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != '-' : !isxdigit(static_cast<unsigned char>(s[i])) || islower(s[i])) return false;
    }
    return true;
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
    struct Case {
        const char* stored;
        const char* did;
    } cases[] = {
        {"{ABCDEFGH-1}", "{ABCDEFGH-1}"},       {"ABCDEFGHIJ", "{ABCDEFGHIJ}"},  // no braces: wrapped
        {"my id\tnumber", "{my0id0number}"},                                     // space and control byte
        {"{caf\xC3\xA9-id-1}", "{caf00-id-1}"},  // every byte of a non-ASCII character
        {"{del\x7Fid-123}", "{del0id-123}"},
    };
    for (const Case& c : cases) {
        FakeLeaves leaves;
        leaves.exists = true;
        leaves.stored = c.stored;
        EXPECT_EQ(c.did, Velto::sanitize_client_sign(Velto::wrap_client_id(Velto::client_sign(leaves))))
            << c.stored;
    }
    EXPECT_EQ("{}", Velto::sanitize_client_sign(Velto::wrap_client_id("")));
    EXPECT_EQ(" ", Velto::sanitize_client_sign(" "));  // too short to clean
    EXPECT_EQ("{", Velto::wrap_client_id("{"));
}

// The Linux leaves, with HOME moved to a temporary directory for the process of this test.
class LinuxLeaves : public ::testing::Test {
  protected:
    typedef std::map<std::string, std::string> Prefs;

    void SetUp() override { setenv("HOME", home_.path().c_str(), 1); }

    std::string prefs_dir() const { return home_.path() + "/Library/Preferences"; }
    std::string prefs_path() const { return prefs_dir() + "/com.orvexa.helper_compact.plist"; }

    // The string members of the preferences file's dictionary; {"?": content} when unreadable.
    Prefs read_prefs() const {
        std::string xml = vtest::read_file(prefs_path());
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

    void write_prefs(const Prefs& values) {
        std::filesystem::create_directories(prefs_dir());
        std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>";
        for (const auto& kv : values) xml += "<key>" + kv.first + "</key><string>" + kv.second + "</string>";
        vtest::write_file(prefs_path(), xml + "</dict></plist>\n");
    }

    // A new id is the platform UUID in braces, or the random form when the machine has none.
    void expect_new_id(const std::string& id) {
        std::string uuid = leaves_.platform_uuid();
        if (!uuid.empty()) {
            EXPECT_EQ("{" + uuid + "}", id);
        } else {
            EXPECT_TRUE(id.size() == 40 && id.compare(0, 2, "{[") == 0 && id.compare(38, 2, "]}") == 0 &&
                        is_upper_uuid(id.substr(2, 36)))
                << id;
        }
    }

    vtest::TempDir home_;
    ClientIdLeaves& leaves_ = Velto::platform_client_id_leaves();
};

TEST_F(LinuxLeaves, UuidForms) {
    std::string a = leaves_.random_uuid();
    EXPECT_TRUE(is_upper_uuid(a)) << a;
    EXPECT_NE(a, leaves_.random_uuid());
    EXPECT_EQ(std::string::npos, leaves_.platform_uuid().find_first_of("\r\n"));
}

TEST_F(LinuxLeaves, NewFileCreatedAndReadBack) {
    ASSERT_FALSE(leaves_.prefs_exists());
    std::string id = Velto::client_sign(leaves_);
    expect_new_id(id);
    EXPECT_EQ((Prefs{{"client ID", id}}), read_prefs());
    Velto::StrList files;
    Velto::get_files(prefs_dir(), files);
    EXPECT_EQ(1u, files.size());  // no temporary file left behind

    EXPECT_EQ(id, Velto::client_sign(leaves_));
    write_prefs({{"client ID", "{stored-elsewhere}"}});
    EXPECT_EQ("{stored-elsewhere}", Velto::client_sign(leaves_));
}

TEST_F(LinuxLeaves, ShortIdReplacedOtherKeysKept) {
    write_prefs({{"client ID", "012345678"}, {"Client Sign", "x"}, {"other", "keep me"}});
    std::string id = Velto::client_sign(leaves_);
    expect_new_id(id);
    EXPECT_EQ((Prefs{{"client ID", id}, {"Client Sign", "x"}, {"other", "keep me"}}), read_prefs());
}

TEST_F(LinuxLeaves, UnreadableFileReplaced) {
    write_prefs({});
    vtest::write_file(prefs_path(), "<?xml version=\"1.0\"?><plist><dict><key>client ID</key><string>0123");
    std::string id = Velto::client_sign(leaves_);
    expect_new_id(id);
    EXPECT_EQ((Prefs{{"client ID", id}}), read_prefs());
}

TEST_F(LinuxLeaves, DidFromStoredId) {
    write_prefs({{"client ID", "my id\xC3\xA9xyz1"}});
    EXPECT_EQ("{my0id00xyz1}", Velto::get_client_sign());
}

}  // namespace
