// The scoped lock and what it says of a mutex that fails.
#include "mutex_aux.h"

#include <gtest/gtest.h>

#include "log_capture.h"
#include "platform.h"

#if defined(__SANITIZE_THREAD__)
// One unlock below is wrong on purpose.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:Mutex_Aux\n";
}
#endif

namespace {

using dlp_btree::Mutex_Aux;

class MutexAuxTest : public testing::Test {
 protected:
  void expectLogged(const std::string& text) {
    ASSERT_EQ(1u, log_.lines().size());
    EXPECT_EQ(3, log_.lines()[0].level);
    EXPECT_EQ("Error", log_.lines()[0].word);
    EXPECT_EQ("fpe_sig_index", log_.lines()[0].tag);
    EXPECT_EQ(text, log_.lines()[0].text);
  }

  LogCapture log_;
  pthread_mutex_t mutex_ = TESSERA_MUTEX_INITIALIZER;
};

TEST_F(MutexAuxTest, HoldsTheMutexWhileItLives) {
  {
    const Mutex_Aux lock(&mutex_);
    EXPECT_NE(0, pthread_mutex_trylock(&mutex_));
  }
  EXPECT_EQ(0, pthread_mutex_trylock(&mutex_));
  EXPECT_EQ(0, pthread_mutex_unlock(&mutex_));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(MutexAuxTest, ALockThatFailsIsOnlyLogged) {
  ASSERT_EQ(0, pthread_mutex_lock(&mutex_));
  {
    const Mutex_Aux lock(&mutex_);
    expectLogged("#<dlp_btree::Mutex_Aux::Mutex_Aux>#lock mutex fail");
  }
  // The guard has let go of a lock that was never its own.
  EXPECT_EQ(0, pthread_mutex_trylock(&mutex_));
  EXPECT_EQ(0, pthread_mutex_unlock(&mutex_));
  EXPECT_EQ(1u, log_.lines().size());
}

TEST_F(MutexAuxTest, AnUnlockThatFailsIsOnlyLogged) {
  {
    const Mutex_Aux lock(&mutex_);
    ASSERT_EQ(0, pthread_mutex_unlock(&mutex_));
  }
  expectLogged("#<dlp_btree::Mutex_Aux::~Mutex_Aux>#unlock mutex fail");
}

}  // namespace
