// The timer list's positions, iterator and edge results.
#include "timer_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class TimerListTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(timer_list_init(&list_), 0); }
  void TearDown() override {
    timer_list_special_free(&list_, nullptr);
    timer_mallocHook = nullptr;
  }

  // The elements in list order, read through the iterator.
  std::string Order() {
    std::string out;
    timerListIterator it;
    for (void* e = timer_list_get_first(&list_, &it); e; e = timer_list_get_next(&it)) {
      out += *static_cast<char*>(e);
    }
    return out;
  }

  timerList list_;
  char a_ = 'a', b_ = 'b', c_ = 'c', x_ = 'x';
};

TEST_F(TimerListTest, NullHeaderResults) {
  EXPECT_EQ(timer_list_init(nullptr), -1);
  EXPECT_EQ(timer_list_add(nullptr, &a_, 0), -1);
  EXPECT_EQ(timer_list_get(nullptr, 0), nullptr);
  EXPECT_EQ(timer_list_remove(nullptr, 0), -1);
  EXPECT_EQ(timer_list_size(nullptr), -1);
  EXPECT_EQ(timer_list_eol(nullptr, 0), -1);
  timerListIterator it;
  EXPECT_EQ(timer_list_get_first(nullptr, &it), nullptr);
  EXPECT_EQ(it.current, nullptr);
  timer_list_special_free(nullptr, nullptr);  // no crash
  timer_list_ofchar_free(nullptr);
}

TEST_F(TimerListTest, AddPositions) {
  EXPECT_EQ(timer_list_add(&list_, &a_, 5), 1) << "an empty list takes any position";
  EXPECT_EQ(timer_list_add(&list_, &b_, -1), 2);
  EXPECT_EQ(timer_list_add(&list_, &c_, 2), 3) << "the count appends";
  EXPECT_EQ(Order(), "abc");
  EXPECT_EQ(timer_list_add(&list_, &x_, 0), 4);
  EXPECT_EQ(Order(), "xabc");
  EXPECT_EQ(timer_list_add(&list_, &x_, 1), 5);
  EXPECT_EQ(Order(), "xxabc");
  EXPECT_EQ(timer_list_add(&list_, &x_, 99), 6);
  EXPECT_EQ(Order(), "xxabcx");
  EXPECT_EQ(timer_list_add(&list_, &x_, 3), 7);
  EXPECT_EQ(Order(), "xxaxbcx");
}

TEST_F(TimerListTest, GetRemoveSizeEol) {
  timer_list_add(&list_, &a_, -1);
  timer_list_add(&list_, &b_, -1);
  timer_list_add(&list_, &c_, -1);
  EXPECT_EQ(timer_list_get(&list_, 1), &b_);
  EXPECT_EQ(timer_list_get(&list_, 3), nullptr) << "position equal to the count";
  EXPECT_EQ(timer_list_get(&list_, -1), nullptr);
  EXPECT_EQ(timer_list_remove(&list_, -1), -1);
  EXPECT_EQ(timer_list_remove(&list_, 3), -1);
  EXPECT_EQ(Order(), "abc") << "failed removals change nothing";
  EXPECT_EQ(timer_list_remove(&list_, 1), 2);
  EXPECT_EQ(Order(), "ac");
  EXPECT_EQ(timer_list_remove(&list_, 1), 1);
  EXPECT_EQ(timer_list_remove(&list_, 0), 0);
  EXPECT_EQ(list_.first, nullptr);
  EXPECT_EQ(timer_list_size(&list_), 0);
  EXPECT_EQ(timer_list_eol(&list_, 0), 1);
  timer_list_add(&list_, &a_, -1);
  EXPECT_EQ(timer_list_eol(&list_, 0), 0);
  EXPECT_EQ(timer_list_eol(&list_, 1), 1);
}

TEST_F(TimerListTest, IteratorOnEmptyListEndsAtOnce) {
  timerListIterator it;
  EXPECT_EQ(timer_list_get_first(&list_, &it), nullptr);
  EXPECT_EQ(it.current, nullptr);
  EXPECT_EQ(timer_list_get_next(&it), nullptr);
  EXPECT_EQ(timer_list_iterator_remove(&it), nullptr);
}

TEST_F(TimerListTest, IteratorRemove) {
  timer_list_add(&list_, &a_, -1);
  timerListIterator it;
  ASSERT_EQ(timer_list_get_first(&list_, &it), &a_);
  EXPECT_EQ(timer_list_iterator_remove(&it), nullptr) << "the only element";
  EXPECT_EQ(timer_list_size(&list_), 0);
  EXPECT_EQ(list_.first, nullptr);

  timer_list_add(&list_, &a_, -1);
  timer_list_add(&list_, &b_, -1);
  ASSERT_EQ(timer_list_get_first(&list_, &it), &a_);
  EXPECT_EQ(timer_list_iterator_remove(&it), &b_) << "the first of two";
  EXPECT_EQ(it.pos, 0);
  EXPECT_EQ(Order(), "b");

  timer_list_add(&list_, &c_, -1);
  timer_list_add(&list_, &x_, -1);  // b c x
  timer_list_get_first(&list_, &it);
  ASSERT_EQ(timer_list_get_next(&it), &c_);
  EXPECT_EQ(timer_list_iterator_remove(&it), &x_) << "from the middle";
  EXPECT_EQ(it.pos, 1);
  EXPECT_EQ(timer_list_iterator_remove(&it), nullptr) << "the last";
  EXPECT_EQ(Order(), "b");
  EXPECT_EQ(timer_list_size(&list_), 1);
}

TEST_F(TimerListTest, CountIsTheAuthorityForTheEnd) {
  timer_list_add(&list_, &a_, -1);
  timer_list_add(&list_, &b_, -1);
  timer_list_add(&list_, &c_, -1);
  list_.count = 2;  // the third cell's link still exists
  EXPECT_EQ(Order(), "ab");
  EXPECT_EQ(timer_list_get(&list_, 2), nullptr);
  list_.count = 3;
}

TEST_F(TimerListTest, AllocationFailureLeavesTheListUnchanged) {
  timer_list_add(&list_, &a_, -1);
  timer_mallocHook = [](size_t) -> void* { return nullptr; };
  EXPECT_EQ(timer_list_add(&list_, &b_, 0), -1);
  timer_mallocHook = nullptr;
  EXPECT_EQ(Order(), "a");
  EXPECT_EQ(timer_list_size(&list_), 1);
}

TEST_F(TimerListTest, FreeingHandsOverEveryElement) {
  std::vector<char*> freed;
  static std::vector<char*>* sink;
  sink = &freed;
  timer_list_add(&list_, &a_, -1);
  timer_list_add(&list_, &b_, -1);
  timer_list_special_free(&list_, [](void* e) { sink->push_back(static_cast<char*>(e)); });
  EXPECT_EQ(freed, (std::vector<char*>{&a_, &b_}));
  EXPECT_EQ(timer_list_size(&list_), 0);

  // ofchar_free releases the elements and the header (checked by the sanitizers).
  timerList* owned = static_cast<timerList*>(timer_malloc(sizeof(timerList)));
  timer_list_init(owned);
  for (int i = 0; i < 3; ++i) timer_list_add(owned, timer_malloc(16), -1);
  timer_list_ofchar_free(owned);
}

}  // namespace
