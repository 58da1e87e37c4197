// Helpers of the tests that run tests/hosts/flow_host against a loopback collector: the labels a
// host accepted, waiting for the uploads to go quiet, draining a root with one more start, and the
// check that every accepted record reached the collector exactly once.
#ifndef VELTO_TEST_FLOW_HOSTS_H
#define VELTO_TEST_FLOW_HOSTS_H

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child_process.h"
#include "delivery.h"

namespace vtest {

inline std::string flow_host_path() {
    return binary_dir() + "/tests/hosts/flow_host";
}

// The labels a host printed as accepted ("A <label>").
inline std::vector<std::string> accepted_labels(const std::string& out) {
    std::vector<std::string> labels;
    for (const std::string& line : lines_of(read_file(out)))
        if (line.compare(0, 2, "A ") == 0) labels.push_back(line.substr(2));
    return labels;
}

// The label of a record ("" for one without, such as the initial record).
inline std::string label_of(const std::string& record) {
    const std::string key = "\"label\":\"";
    const size_t at = record.find(key);
    if (at == std::string::npos) return "";
    const size_t end = record.find('"', at + key.size());
    return end == std::string::npos ? "" : record.substr(at + key.size(), end - at - key.size());
}

// Waits until the collector has had no request for quiet_ms (bounded).
inline void wait_quiet(const vcollect::RawServer& server, int quiet_ms) {
    size_t seen = server.requests().size();
    auto last = std::chrono::steady_clock::now();
    const auto end = last + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const size_t now_seen = server.requests().size();
        if (now_seen != seen) {
            seen = now_seen;
            last = std::chrono::steady_clock::now();
        } else if (std::chrono::steady_clock::now() - last > std::chrono::milliseconds(quiet_ms)) {
            return;
        }
    }
}

// One more start that stops at once and waits until the root holds no record; "" when drained.
inline std::string drain_root(const std::string& root, const std::string& side_log,
                              const std::vector<std::pair<std::string, std::string>>& env) {
    ChildProcess recover({flow_host_path(), root, "0", "0", "recover", "recover"}, side_log, side_log, env);
    const int drained = recover.wait(30000);
    if (drained == 0) return "";
    Velto::StrList names;
    Velto::get_files(root + "/", names);
    std::string left;
    for (const std::string& n : names) left += " " + n + ":" + std::to_string(file_size(root + "/" + n));
    return "the root was not drained (" + std::to_string(drained) + "):" + left;
}

// "" when every accepted label reached the collector exactly once. A batch sent again under its
// name (its reply was not seen before a kill) is a repeat, which the collector stores once; the
// same name with other records would be a loss or a double.
inline std::string not_delivered_once(const vcollect::RawServer& server,
                                      const std::vector<std::string>& accepted) {
    std::map<std::string, int> delivered;
    std::map<std::string, std::string> batch_of_name;
    for (const auto& upload : file_uploads(server)) {
        auto known = batch_of_name.find(upload.first);
        if (known != batch_of_name.end()) {
            if (known->second != upload.second)
                return "upload name " + upload.first + " stood for two batches";
            continue;
        }
        batch_of_name[upload.first] = upload.second;
        for (const std::string& record : lines_of(upload.second)) ++delivered[label_of(record)];
    }
    std::string wrong;
    for (const std::string& label : accepted) {
        const int n = delivered[label];
        if (n != 1 && wrong.size() < 400) wrong += " " + label + " x" + std::to_string(n);
    }
    return wrong.empty() ? "" : "delivered not exactly once:" + wrong;
}

}  // namespace vtest

#endif
