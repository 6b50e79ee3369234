// The class behind a safe array handle and the record of one snapshot it has
// handed out. Kept in a header of its own so the tests can look at the
// storage and the snapshot list the way the layout defines them.
#ifndef KORVANE_SAFE_ARRAY_INTERNAL_H
#define KORVANE_SAFE_ARRAY_INTERNAL_H

#include <cstdint>
#include <list>

#include "korvane/types.h"

// One snapshot handed out by safearray_access_element and not yet released.
struct _ALLOC_DATA_BLOCK {
    TVARTYPE vt;    // element type of the snapshot; 0 marks a released record
    void* data;     // the snapshot storage (array new)
    uint32_t count; // elements in the snapshot
};

// Element storage is one zero-filled byte array (array new) of count x width
// bytes; string arrays hold one owned bstrunit pointer per element (null for
// an element holding no string). Type 0 and unknown types never get storage
// but still report their count.
class safearray_handle : public tagTSAFEITEMARRAY {
public:
    safearray_handle(TVARTYPE type, uint32_t count);
    safearray_handle(const safearray_handle&) = delete;
    safearray_handle& operator=(const safearray_handle&) = delete;
    virtual ~safearray_handle();

    // Frees every snapshot and empties the list (safearray_unaccess_element).
    void releaseSnapshots();
    // Frees the storage and its units; count 0, type kept (safearray_clear).
    void clearElements();

    std::list<_ALLOC_DATA_BLOCK> blocks; // outstanding snapshots, oldest first
};

#endif
