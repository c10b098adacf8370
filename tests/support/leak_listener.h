// Fails any test that leaves a descriptor open or a file in the temporary root.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace veldar {

class leak_listener : public testing::EmptyTestEventListener {
  public:
    void OnTestStart(const testing::TestInfo& info) override;
    void OnTestEnd(const testing::TestInfo& info) override;

    static std::set<std::string> open_descriptors();
    static std::set<std::string> temporary_files();

  private:
    std::set<std::string> descriptors_;
    std::set<std::string> files_;
};

}  // namespace veldar
