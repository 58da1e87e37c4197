// Shared ground of the configuration file and fetch tests: a settings store of the test's own over a
// fresh root directory, the log beside it, complete base information so that the fetch never
// waits, and the configuration endpoint aimed at a loopback port where nothing listens unless the
// test starts a collector.
#ifndef VELTO_TEST_CONFIG_FIXTURE_H
#define VELTO_TEST_CONFIG_FIXTURE_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "Log.h"
#include "OsApi.h"
#include "Util.h"
#include "scenario.h"

namespace conftest {

class ConfFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        conf_.init_mutex();
        conf_.set("ROOT_DIR", root());
        Velto::Log::obj_->init(dir_.file("sdk.log").c_str());
        // As data_init and data_base_info leave it (14 fields and more), with values to form-encode.
        static const char* const kFields[][2] = {
            {"uid", "u 1"},      {"pid", "42"},        {"did", "{ab-cd}"},         {"pver", "2.0&b"},
            {"tid", "t/1"},      {"BRAND", "Brand X"}, {"modver", "1.1.1.1113"},   {"plang", "en"},
            {"ostype", "mac"},   {"osver", "10.15"},   {"tinstall", "1600000000"}, {"osbit", "64"},
            {"oslang", "en-US"}, {"oszone", "8"},      {"procname", "p"},
        };
        Velto::g_base_info.clear();
        for (const auto& f : kFields) Velto::g_base_info.set(f[0], f[1]);
        Velto::set_conf_endpoint_host("127.0.0.1:1");
    }
    void TearDown() override {
        Velto::set_conf_endpoint_host("");
        Velto::os_time_shift(-shifted_);
    }

    std::string root() const { return dir_.path() + "/"; }
    std::string cf_path() const { return dir_.file("sdk.cf"); }
    std::string log_text() const { return vtest::read_file(dir_.file("sdk.log")); }
    bool logged(const std::string& text, size_t from = 0) const {
        return log_text().find(text, from) != std::string::npos;
    }

    vtest::TempDir dir_;
    Velto::Config conf_;
    long long shifted_ = 0;
};

}  // namespace conftest

#endif
