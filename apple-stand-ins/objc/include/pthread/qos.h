// Declares the part of <pthread/qos.h> in use. Sources: Apple's open-source libpthread, and its manual page
// pthread_set_qos_class_self_np(3).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { QOS_CLASS_USER_INITIATED = 0x19 } qos_class_t;

// Names the calling thread "qos 0x19" for quality of service 0x19, so that a test sees it in /proc. Returns
// 0.
int pthread_set_qos_class_self_np(qos_class_t quality, int relativePriority);

#ifdef __cplusplus
}
#endif
