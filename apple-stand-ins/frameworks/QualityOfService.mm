#include <pthread.h>
#include <pthread/qos.h>

#include <cstdio>

int pthread_set_qos_class_self_np(qos_class_t quality, int) {
  char name[16];
  std::snprintf(name, sizeof name, "qos 0x%x", static_cast<unsigned>(quality));
  return pthread_setname_np(pthread_self(), name);
}
