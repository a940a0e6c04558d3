// The run's name-to-position table: exact byte keys, later positions win, growth keeps
// every entry, and the empty name is a key like any other.
#include <gtest/gtest.h>

#include <string>

#include "name_table.h"

TEST(NameTable, KeepsTheLastPositionOfEveryName) {
    name_table t;
    EXPECT_EQ(t.find("r1"), nullptr);
    for (int k = 0; k < 5000; ++k) t.set("read" + std::to_string(k), k);
    t.set("read7", 70000);
    t.set(std::string_view(), 5);      // an unnamed record (null data, no bytes)
    t.set(std::string("a\0b", 3), 9);  // names are bytes, NUL included
    EXPECT_EQ(t.size(), 5002u);
    EXPECT_EQ(*t.find("read7"), 70000);
    EXPECT_EQ(*t.find("read4999"), 4999);
    EXPECT_EQ(*t.find(""), 5);
    EXPECT_EQ(*t.find(std::string("a\0b", 3)), 9);
    EXPECT_EQ(t.find("a"), nullptr);
    EXPECT_EQ(t.find("READ7"), nullptr);

    // Inserts complete a few calls late: a name set twice in a row, or found between two
    // sets, still shows its latest position; long names live outside their entries.
    name_table burst;
    const std::string long_name(300, 'L');
    for (int k = 0; k < 40; ++k) {
        burst.set("dup", k);
        burst.set(long_name + std::to_string(k % 3), k);
        if (k % 7 == 0) {
            EXPECT_EQ(*burst.find("dup"), k);
        }
    }
    EXPECT_EQ(*burst.find("dup"), 39);
    EXPECT_EQ(*burst.find(long_name + "0"), 39);
    EXPECT_EQ(*burst.find(long_name + "2"), 38);
    EXPECT_EQ(burst.find(long_name), nullptr);
    EXPECT_EQ(burst.size(), 4u);

    name_table reserved;
    reserved.reserve(100);
    reserved.set("x", 1);
    EXPECT_EQ(*reserved.find("x"), 1);
}
