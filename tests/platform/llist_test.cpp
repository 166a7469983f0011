#include <gtest/gtest.h>
#include <zel/error.h>
#include <zel/llist.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

namespace {

class ListTest : public ::testing::Test {
 protected:
  void SetUp() override { list_ = llist_create(); }
  void TearDown() override { llist_destroy(list_); }

  void add(std::string_view names) {
    for (const char name : names) ASSERT_TRUE(llist_append(list_, item(name)));
  }
  void* item(char name) { return &items_[static_cast<unsigned char>(name)]; }
  char name(void* item) { return static_cast<char>(static_cast<char*>(item) - items_.data()); }

  std::string all() {
    std::string names;
    ZelListIterator walk;
    for (void* one = llist_first(list_, &walk); one; one = llist_iterator_next(&walk)) names += name(one);
    return names;
  }

  ZelList* list_ = nullptr;
  std::array<char, 256> items_{};
};

TEST_F(ListTest, KeepsTheOrderOfAppending) {
  EXPECT_EQ(all(), "");
  add("abcdefghijklmnop");
  EXPECT_EQ(all(), "abcdefghijklmnop");
  EXPECT_EQ(llist_count(list_), 16u);
}

TEST_F(ListTest, RemovesOnlyWhatIsInIt) {
  add("abc");
  EXPECT_TRUE(llist_remove(list_, item('b')));
  EXPECT_FALSE(llist_remove(list_, item('b')));
  EXPECT_FALSE(llist_remove(list_, item('x')));
  EXPECT_EQ(all(), "ac");
  EXPECT_EQ(llist_count(list_), 2u);
}

TEST_F(ListTest, RefusesNothing) {
  const auto refused = [](bool result) {
    return !result && std::exchange(zel_error, 0) == static_cast<uint32_t>(EINVAL);
  };
  EXPECT_TRUE(refused(llist_append(list_, nullptr)));
  EXPECT_TRUE(refused(llist_append(nullptr, item('a'))));
  EXPECT_TRUE(refused(llist_remove(nullptr, item('a'))));
  EXPECT_EQ(llist_count(nullptr), 0u);
  ZelListIterator walk;
  EXPECT_EQ(llist_first(nullptr, &walk), nullptr);
  EXPECT_EQ(llist_iterator_next(&walk), nullptr);
  llist_destroy(nullptr);
}

struct WalkCase {
  const char* name;
  char at;               // when the walk is at this item
  std::string_view out;  // these are removed
  std::string_view in;   // and these appended
  std::string_view seen;
};

constexpr WalkCase kWalks[] = {
    {"TheCurrentOne", 'c', "c", "", "abcdef"},
    {"TheNext", 'c', "d", "", "abcef"},
    {"AllThatFollow", 'c', "def", "", "abc"},
    {"AllThatWereSeen", 'c', "abc", "", "abcdef"},
    {"Everything", 'c', "abcdef", "", "abc"},
    {"TheLastAtTheLast", 'f', "f", "", "abcdef"},
    {"OneIsAdded", 'f', "", "g", "abcdefg"},
    {"ManyAreAdded", 'a', "", "ghijklmnop", "abcdefghijklmnop"},
    {"AllChange", 'c', "abcdef", "xy", "abcxy"},
    {"AddedAgain", 'c', "b", "b", "abcdefb"},
    {"CompactedWhileGrowing", 'e', "abcd", "uvwxyz", "abcdefuvwxyz"},
};

class ListWalkTest : public ListTest, public ::testing::WithParamInterface<WalkCase> {};

TEST_P(ListWalkTest, SeesWhatIsThere) {
  add("abcdef");
  std::string seen;
  ZelListIterator walk;
  for (void* one = llist_first(list_, &walk); one; one = llist_iterator_next(&walk)) {
    seen += name(one);
    if (name(one) != GetParam().at || seen.find(GetParam().at) != seen.size() - 1) continue;
    for (const char gone : GetParam().out) ASSERT_TRUE(llist_remove(list_, item(gone)));
    add(GetParam().in);
  }
  EXPECT_EQ(seen, GetParam().seen);
}

INSTANTIATE_TEST_SUITE_P(Platform, ListWalkTest, ::testing::ValuesIn(kWalks),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ListTest, WalksDoNotDisturbEachOther) {
  add("abcd");
  ZelListIterator outer;
  std::string seen;
  for (void* one = llist_first(list_, &outer); one; one = llist_iterator_next(&outer)) {
    seen += name(one);
    ZelListIterator inner;
    llist_remove(list_, llist_first(list_, &inner));  // and the inner walk is given up
  }
  EXPECT_EQ(seen, "abcd");
  EXPECT_EQ(llist_count(list_), 0u);
}

TEST_F(ListTest, IsUsableAgainWhenEmptied) {
  for (int round = 0; round < 100; ++round) {
    add("abcdefghijkl");
    for (const char name : std::string_view("lakbjcidhegf")) ASSERT_TRUE(llist_remove(list_, item(name)));
  }
  add("xy");
  EXPECT_EQ(all(), "xy");
}

}  // namespace
