#include "ethr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/ethr/lock_holder.h"

// The holder serialises a read-modify-write from many threads and unlocks
// when an exception leaves the scope (a second lock from another thread
// would otherwise hang the test).
TEST(MutexConcurrent, LockHolderSerialisesAndUnlocksOnException) {
  Ethr_Mutex* m = ethr_MutexCreate(nullptr);
  ASSERT_NE(m, nullptr);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        EthrLockHolder hold(m);
        EthrLockHolder again(m);  // recursive
        counter = counter + 1;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
  try {
    EthrLockHolder hold(m);
    throw 1;
  } catch (int) {
  }
  std::thread([&] { EthrLockHolder hold(m); }).join();
  ethr_MutexDestroy(m, nullptr);
}
