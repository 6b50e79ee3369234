// Environment variables: the getter's caller-buffer protocol and the
// setter's replace, append and substring rule.
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "TestSupport.h"
#include "korvane/system.h"

namespace {

// A variable of this test alone, removed again afterwards.
class ScopedVariable {
public:
    explicit ScopedVariable(const char* initial = nullptr) : m_name(kvtest::uniqueName("VAR")) {
        if (initial != nullptr)
            setenv(m_name.c_str(), initial, 1);
    }
    ~ScopedVariable() { unsetenv(m_name.c_str()); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    const char* name() const { return m_name.c_str(); }
    const char* value() const { return std::getenv(m_name.c_str()); }

private:
    std::string m_name;
};

TEST(EnvironmentGet, NullBufferAsksForTheSize) {
    ScopedVariable variable("abc");
    size_t size = 0;
    EXPECT_TRUE(os_system_get_os_environmentVariable(variable.name(), nullptr, &size));
    EXPECT_EQ(size, 4u);
}

TEST(EnvironmentGet, TooSmallBufferIsRefusedUntouched) {
    ScopedVariable variable("abc");
    char buffer[8] = "#######";
    size_t size = 3;
    EXPECT_FALSE(os_system_get_os_environmentVariable(variable.name(), buffer, &size));
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buffer, "#######");
}

TEST(EnvironmentGet, LargeEnoughBufferGetsTheValueAndItsSize) {
    ScopedVariable variable("abc");
    for (size_t capacity : {4u, 8u}) {
        char buffer[8] = "#######";
        size_t size = capacity;
        EXPECT_TRUE(os_system_get_os_environmentVariable(variable.name(), buffer, &size));
        EXPECT_STREQ(buffer, "abc");
        EXPECT_EQ(size, 4u);
    }
}

TEST(EnvironmentGet, EmptyValueIsSetAndNeedsOneByte) {
    ScopedVariable variable("");
    size_t size = 0;
    EXPECT_TRUE(os_system_get_os_environmentVariable(variable.name(), nullptr, &size));
    EXPECT_EQ(size, 1u);
}

TEST(EnvironmentGet, UnsetOrNullNameGivesFalseWithSizeUntouched) {
    ScopedVariable variable;
    size_t size = 77;
    EXPECT_FALSE(os_system_get_os_environmentVariable(variable.name(), nullptr, &size));
    EXPECT_FALSE(os_system_get_os_environmentVariable(nullptr, nullptr, &size));
    EXPECT_EQ(size, 77u);
    EXPECT_FALSE(os_system_get_os_environmentVariable("PATH", nullptr, nullptr));
}

struct SetCase {
    const char* initial; // null: unset
    const char* value;
    bool replace;
    const char* expected;
};

class EnvironmentSet : public ::testing::TestWithParam<SetCase> {};

TEST_P(EnvironmentSet, FollowsTheReplaceAppendAndContainedRule) {
    const SetCase& c = GetParam();
    ScopedVariable variable(c.initial);
    os_system_set_os_environmentVariable(variable.name(), c.value, c.replace);
    ASSERT_NE(variable.value(), nullptr);
    EXPECT_STREQ(variable.value(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, EnvironmentSet,
    ::testing::Values(SetCase{nullptr, "v", false, "v"}, SetCase{nullptr, "v", true, "v"},
                      SetCase{"", "v", false, "v"}, SetCase{"/usr/bin:/bin", "/opt/x", true, "/opt/x"},
                      SetCase{"/usr/bin:/bin", "/opt/x", false, "/usr/bin:/bin:/opt/x"},
                      // A contained value empties the variable; existing callers rely on it.
                      SetCase{"/usr/bin:/bin:/opt/x", "/opt/x", false, ""},
                      // Contained as a plain substring, not as a whole entry.
                      SetCase{"/usr/bin:/bin", "bin", false, ""}, SetCase{"/usr/bin:/bin", "/usr/b", false, ""}));

TEST(EnvironmentSet, AppendingTwiceEmptiesTheList) {
    ScopedVariable variable("/usr/bin:/bin");
    os_system_set_os_environmentVariable(variable.name(), "/opt/x", false);
    EXPECT_STREQ(variable.value(), "/usr/bin:/bin:/opt/x");
    os_system_set_os_environmentVariable(variable.name(), "/opt/x", false);
    EXPECT_STREQ(variable.value(), "");
    os_system_set_os_environmentVariable(variable.name(), "/opt/y", false);
    EXPECT_STREQ(variable.value(), "/opt/y");
}

TEST(EnvironmentSet, NullNameOrValueRaisesTheLogicError) {
    ScopedVariable variable("keep");
    EXPECT_THROW(os_system_set_os_environmentVariable(nullptr, "v", true), std::logic_error);
    EXPECT_THROW(os_system_set_os_environmentVariable(variable.name(), nullptr, true), std::logic_error);
    EXPECT_STREQ(variable.value(), "keep");
}

} // namespace
