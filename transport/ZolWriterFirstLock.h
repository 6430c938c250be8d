#ifndef ZOL_TRANSPORT_ZOLWRITERFIRSTLOCK_H
#define ZOL_TRANSPORT_ZOLWRITERFIRSTLOCK_H

#include <ace/RW_Mutex.h>
#include <pthread.h>

/// An ACE_RW_Mutex at which readers queue behind a waiting writer. The default one lets them pass, so that a few
/// threads that ask without a pause keep a peer from being registered for as long as they like.
///
/// A thread must not take it shared twice: a writer that comes in between would wait for the first hold, and the second
/// for the writer.
class CZolWriterFirstLock : public ACE_RW_Mutex
{
public:
    CZolWriterFirstLock()
    {
        pthread_rwlockattr_t oAttributes;
        pthread_rwlockattr_init(&oAttributes);
        pthread_rwlockattr_setkind_np(&oAttributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_destroy(&lock_);
        pthread_rwlock_init(&lock_, &oAttributes);
        pthread_rwlockattr_destroy(&oAttributes);
    }
};

#endif
