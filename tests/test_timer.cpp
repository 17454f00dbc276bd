#include <gtest/gtest.h>
TEST(Placeholder, X) {}
