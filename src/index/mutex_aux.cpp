#define LOG_TAG "fpe_sig_index"

#include "mutex_aux.h"

#include "log.h"

namespace dlp_btree {

Mutex_Aux::Mutex_Aux(pthread_mutex_t* mutex) : mutex_(mutex) {
  if (pthread_mutex_lock(mutex_) != 0) LOG_ERROR("lock mutex fail");
}

Mutex_Aux::~Mutex_Aux() {
  if (pthread_mutex_unlock(mutex_) != 0) LOG_ERROR("unlock mutex fail");
}

}  // namespace dlp_btree
