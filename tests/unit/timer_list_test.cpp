// The timer list's positions, iterator and failure results.
#include "timer_list.h"

#include "unit_util.h"

namespace {

class TimerListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(timer_list_init(&list_), 0);
    for (const char* e = abcd_; *e; ++e) timer_list_add(&list_, const_cast<char*>(e), -1);
  }
  void TearDown() override {
    timer_list_special_free(&list_, nullptr);
    timer_mallocHook = nullptr;
  }
  std::string Order() {  // through the iterator
    std::string out;
    timerListIterator it;
    for (void* e = timer_list_get_first(&list_, &it); e; e = timer_list_get_next(&it))
      out += *static_cast<char*>(e);
    return out;
  }
  timerList list_;
  char abcd_[5] = "abcd";
  char x_ = 'x';
};

TEST_F(TimerListTest, AddGetAndRemoveByPosition) {
  EXPECT_EQ(timer_list_add(&list_, &x_, 0), 5);
  EXPECT_EQ(timer_list_add(&list_, &x_, 3), 6);
  EXPECT_EQ(timer_list_add(&list_, &x_, 99), 7);
  EXPECT_EQ(Order(), "xabxcdx");
  EXPECT_EQ(timer_list_get(&list_, 1), &abcd_[0]);
  EXPECT_EQ(timer_list_get(&list_, 7), nullptr);
  EXPECT_EQ(timer_list_remove(&list_, -1), -1);
  EXPECT_EQ(timer_list_remove(&list_, 7), -1);
  EXPECT_EQ(timer_list_remove(&list_, 3), 6);
  EXPECT_EQ(timer_list_eol(&list_, 5), 0);
  EXPECT_EQ(timer_list_eol(&list_, 6), 1);
  timer_mallocHook = [](size_t) -> void* { return nullptr; };
  EXPECT_EQ(timer_list_add(&list_, &x_, 0), -1);
  EXPECT_EQ(Order(), "xabcdx") << "unchanged when no cell can be had";
  timerList empty;
  timer_list_init(&empty);
  timer_mallocHook = nullptr;
  EXPECT_EQ(timer_list_add(&empty, &x_, 5), 1) << "an empty list takes any position";
  timer_list_special_free(&empty, nullptr);
  EXPECT_EQ(timer_list_size(nullptr), -1);
}

TEST_F(TimerListTest, IteratorRemove) {
  timerListIterator it;
  timer_list_get_first(&list_, &it);
  EXPECT_EQ(timer_list_iterator_remove(&it), &abcd_[1]) << "the first returns the second";
  EXPECT_EQ(it.pos, 0);
  ASSERT_EQ(timer_list_get_next(&it), &abcd_[2]);
  EXPECT_EQ(timer_list_iterator_remove(&it), &abcd_[3]) << "from the middle";
  EXPECT_EQ(timer_list_iterator_remove(&it), nullptr) << "the last";
  EXPECT_EQ(Order(), "b");
  timer_list_get_first(&list_, &it);
  EXPECT_EQ(timer_list_iterator_remove(&it), nullptr) << "the only one";
  EXPECT_EQ(list_.first, nullptr);
  EXPECT_EQ(timer_list_get_first(&list_, &it), nullptr);
  EXPECT_EQ(timer_list_iterator_remove(&it), nullptr) << "ended at once on an empty list";
}

}  // namespace
