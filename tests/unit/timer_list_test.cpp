// The timer list's iterator, as the timer thread walks and prunes its lists.
#include "timer_list.h"

#include "unit_util.h"

namespace {

class TimerListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(timer_list_init(&list_), 0);
    for (const char* e = abcd_; *e; ++e) timer_list_add(&list_, const_cast<char*>(e), -1);
  }
  void TearDown() override { timer_list_special_free(&list_, nullptr); }
  std::string Order() {  // through the iterator
    std::string out;
    timerListIterator it;
    for (void* e = timer_list_get_first(&list_, &it); e; e = timer_list_get_next(&it))
      out += *static_cast<char*>(e);
    return out;
  }
  timerList list_;
  char abcd_[5] = "abcd";
};

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
