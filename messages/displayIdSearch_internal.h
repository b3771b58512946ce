#ifndef NK_DISPLAY_ID_SEARCH_INTERNAL_H
#define NK_DISPLAY_ID_SEARCH_INTERNAL_H

// The id search shared by display configurations and logical displays: walks the records by
// index until getByIndex gives null (the end or a null entry) and compares each 15-bit id
// with the whole 16-bit argument, so an argument with bit 15 set never matches. Kept so on
// purpose: the id word packs the current mark into bit 15.
template <typename Record, typename GetByIndex>
Record* firstRecordWithId(GetByIndex getByIndex, unsigned short id)
{
    for (unsigned short i = 0;; ++i) {
        Record* record = getByIndex(i);
        if (record == nullptr) return nullptr;
        if (record->id() == id) return record;
        if (i == 0xFFFF) return nullptr;
    }
}

#endif
