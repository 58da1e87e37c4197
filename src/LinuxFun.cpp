// The Linux implementation of the platform contract (OsImpl.h): process identity, renaming and
// listing files, GUIDs, and the leaves of the client identity (platform UUID, random UUID, the
// preferences property list). Reached only through the wrappers of OsApi.h, from any thread; the
// client-identity leaves run on the host's thread inside data_init.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "ClientSign.h"
#include "Common.h"
#include "OsImpl.h"

namespace VELTO_PLATFORM_NS {

namespace {

const char kSdkVersion[] = "1.1.1.1113";
const char kClientIdKey[] = "client ID";
const char kPrefsRelPath[] = "/Library/Preferences/com.orvexa.helper_compact.plist";
const char kProductUuidPath[] = "/sys/class/dmi/id/product_uuid";
const char kMachineIdPath[] = "/etc/machine-id";

// Upper bounds for what is read from disk: nothing found there may make us allocate without limit.
const size_t kMaxUuidFileBytes = 4096;
const size_t kMaxPrefsFileBytes = 1024 * 1024;
// libplist parses and frees nested arrays and dictionaries recursively, so a hostile file nested deep
// enough would overflow the host's stack inside data_init. A preferences file is two or three levels
// deep; anything nested beyond this is rejected before it is parsed.
const int kMaxPrefsNesting = 64;
const size_t kMaxExePathBytes = 64 * 1024;

class FdCloser {
  public:
    explicit FdCloser(int fd) : fd_(fd) {}
    ~FdCloser() {
        if (fd_ >= 0) close(fd_);
    }
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;

  private:
    int fd_;
};

// Whole content of a file of at most max_bytes; false when unreadable or larger.
bool read_file_bounded(const std::string& path, size_t max_bytes, std::string& out) {
    out.clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    FdCloser closer(fd);
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        if (out.size() + static_cast<size_t>(n) > max_bytes) return false;
        out.append(buf, static_cast<size_t>(n));
    }
}

std::string parent_dir(const std::string& path) {
    size_t sep = path.rfind('/');
    return sep == std::string::npos ? std::string(".") : path.substr(0, sep);
}

// mkdir -p: creates every missing directory of the chain; existing ones are fine.
void make_dirs(const std::string& dir) {
    for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
        std::string part = dir.substr(0, pos);
        if (!part.empty()) mkdir(part.c_str(), 0700);
        if (pos == std::string::npos) break;
    }
}

// Readers of the file never see it half written: the bytes go to a temporary file beside it,
// which then replaces it in one rename.
bool write_file_atomically(const std::string& path, const char* data, size_t len) {
    std::string tmp = path + ".XXXXXX";
    int fd = mkostemp(&tmp[0], O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = Velto::write_all(fd, data, len);
    if (close(fd) != 0) ok = false;
    if (ok && rename(tmp.c_str(), path.c_str()) == 0) return true;
    unlink(tmp.c_str());
    return false;
}

std::string home_dir() {
    const char* env = getenv("HOME");
    if (env && *env) return env;
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(hint > 0 && hint < 1024 * 1024 ? static_cast<size_t>(hint) : 16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) != 0 || !found || !found->pw_dir) {
        return "";
    }
    return found->pw_dir;
}

// The first line of a small system file, without its line end; "" when unreadable.
std::string read_id_file(const char* path) {
    std::string text;
    if (!read_file_bounded(path, kMaxUuidFileBytes, text)) return "";
    size_t end = text.find_first_of("\r\n");
    if (end != std::string::npos) text.resize(end);
    return text;
}

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
typedef std::unique_ptr<void, PlistFree> PlistPtr;

// True when no <dict> or <array> element of an XML property list lies deeper than max_depth. Works
// on the raw text without parsing it; text inside strings cannot hold a '<', so only markup counts.
bool xml_nesting_ok(const std::string& xml, int max_depth) {
    int depth = 0;
    for (size_t lt = xml.find('<'); lt != std::string::npos; lt = xml.find('<', lt + 1)) {
        const bool closing = Velto::starts_with_at(xml, lt + 1, "/");
        const size_t name = lt + (closing ? 2 : 1);
        size_t name_len;
        if (Velto::starts_with_at(xml, name, "dict")) {
            name_len = 4;
        } else if (Velto::starts_with_at(xml, name, "array")) {
            name_len = 5;
        } else {
            continue;
        }
        const size_t after = name + name_len;
        if (after < xml.size() && (isalnum(static_cast<unsigned char>(xml[after])) || xml[after] == '_'))
            continue;  // another element whose name starts the same way
        if (closing) {
            --depth;
            continue;
        }
        const size_t gt = xml.find('>', after);
        if (gt != std::string::npos && xml[gt - 1] == '/') continue;  // <dict/>: empty, no nesting
        if (++depth > max_depth) return false;
    }
    return true;
}

// Big-endian unsigned integer of n bytes (n <= 8) at p.
uint64_t read_be(const unsigned char* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

// The object table of a binary property list ("bplist00"): header, objects, offset table, and a
// 32-byte trailer giving the sizes of offsets and object references, the object count, the top
// object and where the offset table starts.
class BinaryPlist {
  public:
    explicit BinaryPlist(const std::string& data)
        : p_(reinterpret_cast<const unsigned char*>(data.data())), size_(data.size()) {}

    // True when the table is consistent and no container lies deeper than max_depth below the top.
    // Walks the object graph without recursion; an object reached again no deeper than before is not
    // walked again, so shared objects cost nothing and a cycle ends at the depth limit.
    bool nesting_ok(int max_depth) {
        if (!read_trailer()) return false;
        std::vector<unsigned char> walked(static_cast<size_t>(count_), 0);  // deepest visit + 1
        struct Frame {
            uint64_t refs, left;  // position of the next reference, references left
            int depth;
        };
        std::vector<Frame> stack;
        uint64_t object = top_;
        int depth = 0;
        for (;;) {
            if (depth > max_depth) return false;
            if (walked[object] <= depth) {
                walked[object] = static_cast<unsigned char>(depth + 1);
                Frame f = {0, 0, depth};
                if (!children(object, f.refs, f.left)) return false;
                if (f.left > 0) stack.push_back(f);
            }
            // The next reference still to follow, from the innermost container that has one.
            while (!stack.empty() && stack.back().left == 0) stack.pop_back();
            if (stack.empty()) return true;
            Frame& top = stack.back();
            object = read_be(p_ + top.refs, ref_size_);
            if (object >= count_) return false;
            top.refs += ref_size_;
            --top.left;
            depth = top.depth + 1;
        }
    }

  private:
    static const size_t kTrailer = 32;

    bool read_trailer() {
        if (size_ < 8 + kTrailer) return false;
        const unsigned char* t = p_ + size_ - kTrailer;
        offset_size_ = t[6];
        ref_size_ = t[7];
        count_ = read_be(t + 8, 8);
        top_ = read_be(t + 16, 8);
        table_ = read_be(t + 24, 8);
        if (offset_size_ < 1 || offset_size_ > 8 || ref_size_ < 1 || ref_size_ > 8) return false;
        const uint64_t end = size_ - kTrailer;
        return count_ >= 1 && top_ < count_ && table_ >= 8 && table_ <= end &&
               count_ <= (end - table_) / offset_size_;
    }

    // Where the references of an object start and how many there are (none for a non-container).
    bool children(uint64_t object, uint64_t& refs, uint64_t& n) {
        const uint64_t at = read_be(p_ + table_ + object * offset_size_, offset_size_);
        if (at < 8 || at >= table_) return false;
        const unsigned char marker = p_[at];
        const unsigned kind = marker >> 4;
        n = 0;
        if (kind != 0xA && kind != 0xC && kind != 0xD) return true;  // array, set, dictionary
        n = marker & 0x0F;
        refs = at + 1;
        if (n == 0x0F) {  // the count follows as an integer object of 1, 2, 4 or 8 bytes
            if (refs >= table_ || (p_[refs] & 0xF0) != 0x10 || (p_[refs] & 0x0F) > 3) return false;
            const size_t bytes = size_t(1) << (p_[refs] & 0x0F);
            if (refs + 1 + bytes > table_) return false;
            n = read_be(p_ + refs + 1, bytes);
            refs += 1 + bytes;
        }
        if (kind == 0xD) {
            if (n > (table_ - refs) / ref_size_ / 2) return false;
            n *= 2;  // keys, then values
        }
        return n <= (table_ - refs) / ref_size_;
    }

    const unsigned char* p_;
    uint64_t size_;
    size_t offset_size_ = 0, ref_size_ = 0;
    uint64_t count_ = 0, top_ = 0, table_ = 0;
};

// The dictionary of a property-list file (XML or binary); null when unreadable, too large, nested
// too deep or not a dictionary.
PlistPtr load_dict(const std::string& path) {
    std::string data;
    if (!read_file_bounded(path, kMaxPrefsFileBytes, data) || data.empty()) return nullptr;
    const uint32_t len = static_cast<uint32_t>(data.size());
    const bool shallow = plist_is_binary(data.data(), len) ? BinaryPlist(data).nesting_ok(kMaxPrefsNesting)
                                                           : xml_nesting_ok(data, kMaxPrefsNesting);
    if (!shallow) return nullptr;
    plist_t root = nullptr;
    plist_from_memory(data.data(), len, &root);
    PlistPtr dict(root);
    if (!dict || plist_get_node_type(dict.get()) != PLIST_DICT) return nullptr;
    return dict;
}

bool save_dict(const std::string& path, plist_t dict) {
    char* xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(dict, &xml, &len);
    if (!xml) return false;
    bool ok = write_file_atomically(path, xml, len);
    plist_to_xml_free(xml);
    return ok;
}

void set_client_id(plist_t dict, const std::string& id) {
    // A damaged binary file can hold the key more than once. Setting it replaces only the first, and
    // the XML reader keeps the last one, so the next start would read another value: keep just one.
    for (uint32_t n = plist_dict_get_size(dict); n > 0 && plist_dict_get_item(dict, kClientIdKey); --n) {
        plist_dict_remove_item(dict, kClientIdKey);
    }
    plist_dict_set_item(dict, kClientIdKey, plist_new_string(id.c_str()));
}

// The leaves of the client id on Linux. Stateless: the home directory is looked up on every use.
class LinuxClientIdLeaves : public Velto::ClientIdLeaves {
  public:
    // The firmware's UUID is usually readable by root only; the machine id is the stable fallback.
    // Both are the machine's own identifiers: only their keyed hash leaves this function.
    std::string platform_uuid() override {
        std::string uuid = read_id_file(kProductUuidPath);
        if (uuid.empty()) uuid = read_id_file(kMachineIdPath);
        return uuid.empty() ? uuid : Velto::keyed_platform_id(uuid);
    }

    std::string random_uuid() override {
        uuid_t raw;
        uuid_generate(raw);
        char text[37];
        uuid_unparse_upper(raw, text);
        return text;
    }

    bool prefs_exists() override {
        std::string path = prefs_path();
        struct stat st;
        return !path.empty() && stat(path.c_str(), &st) == 0;
    }

    std::string prefs_client_id() override {
        std::string path = prefs_path();
        if (path.empty()) return "";
        PlistPtr dict = load_dict(path);
        if (!dict) return "";
        plist_t item = plist_dict_get_item(dict.get(), kClientIdKey);
        if (!item || plist_get_node_type(item) != PLIST_STRING) return "";
        // Read with its length: a string with a NUL byte inside is no id (and would make libplist's
        // own string copy abort the process).
        uint64_t len = 0;
        const char* text = plist_get_string_ptr(item, &len);
        if (!text || strnlen(text, len) != len) return "";
        return std::string(text, len);
    }

    // A file that does not hold a readable dictionary is replaced by one holding just the id: the
    // id must survive to the next run, and nothing else could be kept from such a file anyway.
    void prefs_set_client_id(const std::string& id) override {
        std::string path = prefs_path();
        if (path.empty()) return;
        PlistPtr dict = load_dict(path);
        if (!dict) dict.reset(plist_new_dict());
        if (!dict) return;
        set_client_id(dict.get(), id);
        save_dict(path, dict.get());
    }

    void prefs_create(const std::string& id) override {
        std::string path = prefs_path();
        if (path.empty()) return;
        make_dirs(parent_dir(path));
        PlistPtr dict(plist_new_dict());
        if (!dict) return;
        set_client_id(dict.get(), id);
        save_dict(path, dict.get());
    }

  private:
    static std::string prefs_path() {
        std::string home = home_dir();
        return home.empty() ? "" : home + kPrefsRelPath;
    }
};

}  // namespace

int get_pid_impl() {
    return static_cast<int>(getpid());
}

std::string get_pname_impl() {
    for (size_t size = 4096; size <= kMaxExePathBytes; size *= 2) {
        std::vector<char> buf(size);
        ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size());
        if (n <= 0) return "";
        if (static_cast<size_t>(n) < buf.size()) return std::string(buf.data(), static_cast<size_t>(n));
    }
    return "";
}

std::string get_sdk_version_impl() {
    return kSdkVersion;
}

bool rename_file_impl(const std::string& from, const std::string& to, std::string& error) {
    if (rename(from.c_str(), to.c_str()) == 0) return true;
    error = Velto::errno_text(errno);
    return false;
}

// The short-directory rule lives in the portable wrapper; here every name is listed.
void get_files_impl(const std::string& dir, Velto::StrList& out) {
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
    if (!d) return;
    while (struct dirent* entry = readdir(d.get())) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        out.push_back(name);
    }
}

std::string get_guid_impl() {
    uuid_t raw;
    uuid_generate(raw);
    char text[35];
    text[0] = '{';
    for (int i = 0; i < 16; ++i) snprintf(text + 1 + 2 * i, 3, "%02x", raw[i]);
    text[33] = '}';
    text[34] = '\0';
    return text;
}

bool write_file_synced_impl(const std::string& path, const char* data, size_t len) {
    // Owner-only, and never through a link planted at the temporary name.
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    bool ok = Velto::write_all(fd, data, len) && fsync(fd) == 0;
    if (close(fd) != 0) ok = false;
    return ok;
}

std::string get_client_sign_impl(const std::string& /*brand*/) {
    return Velto::wrap_client_id(Velto::client_sign(Velto::platform_client_id_leaves()));
}

}  // namespace VELTO_PLATFORM_NS

namespace Velto {

ClientIdLeaves& platform_client_id_leaves() {
    static ClientIdLeaves* leaves = new VELTO_PLATFORM_NS::LinuxClientIdLeaves();  // never destroyed
    return *leaves;
}

}  // namespace Velto
