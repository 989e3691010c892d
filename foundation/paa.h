/* Associative arrays: the platform's one container.
 *
 * A table maps byte-string keys to byte-string values, which it copies, or to pointers, which it only stores. It
 * remembers the order of insertion and lists itself in key order on demand. Keys are any bytes, NUL included; key
 * and length always go together, a text key with its strlen. Key order is that of the unsigned bytes; of two keys
 * of which one begins the other, the shorter comes first.
 *
 * Every call sets paaerrno to 0 at its start and to a code on failure. Calls that return an int give 0 or -1; calls
 * that return a pointer give null on failure. A failed call leaves the table as it was. An output pointer for a
 * length may be null. Nothing is logged here. Everything here is for one thread. */
#ifndef FOUNDATION_PAA_H
#define FOUNDATION_PAA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Flags of paaCreate. */
enum {
    PAAFLAGPOINTER = 1, /* values are the caller's pointers: stored, neither copied nor freed */
    PAAFLAGLARGE = 2    /* 65521 buckets instead of 1019, for tables of many thousand entries */
};

/** Codes in paaerrno. Callers print the number. */
enum {
    PAAERRNOTFOUND = 1,   /* no such key, an empty table, or the walk is at its end */
    PAAERRNOCURRENT = 2,  /* a step of a walk that isn't in progress */
    PAAERREXISTS = 3,     /* the key exists already */
    PAAERRBADHANDLE = 12, /* null, or no table */
    PAAERRNOKEY = 13,     /* null key pointer */
    PAAERRNOKEYLEN = 14,  /* key length 0 or negative */
    PAAERRNODATA = 15,    /* null value pointer with a length, or a negative length */
    PAAERRNOMEM = 25,     /* memory is short, or a value would pass 2^31-1 bytes */
    PAAERRCORRUPT = 30    /* entries are counted, but there is no first one */
};

/** Why the last call failed; 0 after a success. */
extern int32_t paaerrno;

/** One key and its value. Belongs to its table; callers see keys and values, not entries. */
typedef struct PAA_ENTRY_S {
    uint32_t keyLength;
    uint32_t valueLength;                      /* always 4 in a PAAFLAGPOINTER table */
    unsigned char *key;                        /* the table's copy, one NUL behind it */
    void *value;                               /* a copy, one NUL behind it; or the caller's pointer */
    struct PAA_ENTRY_S *chainPrev, *chainNext; /* entries of the same bucket, ascending by key */
    struct PAA_ENTRY_S *orderPrev, *orderNext; /* all entries, oldest first */
} PAA_ENTRY_S;

/** A table. Made by paaCreate and changed by the calls below only. */
typedef struct PAA_S {
    uint32_t magic;               /* tells a live table from a stray pointer */
    uint32_t count;               /* entries */
    uint32_t sortedCursor;        /* where the walk in key order stands: an index into sortedIndex */
    uint32_t flags;               /* PAAFLAG... bits */
    PAA_ENTRY_S *current;         /* where the walk in order of insertion stands; null: none in progress */
    PAA_ENTRY_S **buckets;        /* heads of the chains; null until the first insertion */
    PAA_ENTRY_S **sortedIndex;    /* all entries by key; null when not valid */
    PAA_ENTRY_S *first;           /* oldest entry */
    PAA_ENTRY_S *last;            /* newest entry */
    struct PAA_INDEX_S **indexes; /* by bucket, index of its chain or null; null until a chain gets long */
    PAA_ENTRY_S *lastFound;       /* null: none since the set of keys changed */
    PAA_ENTRY_S *guess;           /* what may be asked for next; null: no guess */
    uint32_t isMapped;            /* 1: the system has all memory of `buckets` at hand */
} PAA_S;

/* ---- Tables ------------------------------------------------------------------------------------------------- */

/** Makes an empty table; bits of `flags` other than the PAAFLAG... ones are ignored. The caller ends it with
 *  paaDestroy. Null without memory. */
PAA_S *paaCreate(int flags);

/** Empties the table and frees it. Values of a PAAFLAGPOINTER table stay: free them first, in a walk. */
int paaDestroy(PAA_S *table);

/** Frees all entries and leaves an empty table with the same flags. Values as for paaDestroy. */
int paaClear(PAA_S *table);

/* ---- Entries -------------------------------------------------------------------------------------------------
 * Keys and values handed in are copied (but for the values of a PAAFLAGPOINTER table, whose length given is ignored
 * and always reads 4). A value of length 0 may be a null pointer. All calls on keys report PAAERRBADHANDLE,
 * PAAERRNOKEYLEN, PAAERRNOKEY, and those that write PAAERRNODATA, in this order.
 *
 * Pointers handed out are the table's own: a key lives as long as its entry, a value until its entry is removed or
 * the value replaced or appended to. Behind both stands a NUL, so that texts can be used as such. */

/** Adds an entry. PAAERREXISTS if the key is there: the old value stands. Ends a walk in progress. */
int paaInsert(PAA_S *table, const void *key, int keyLength, const void *value, int valueLength);

/** Overwrites the value of a key, or inserts. A value overwritten with length 0 becomes a null pointer, not an empty
 *  block: paaFind then returns null with paaerrno 0. Walks go on. */
int paaReplace(PAA_S *table, const void *key, int keyLength, const void *value, int valueLength);

/** Adds bytes to the end of a key's value, or inserts. PAAERREXISTS for a key of a PAAFLAGPOINTER table. Length 0
 *  changes nothing in a value that exists. Walks go on. */
int paaAppend(PAA_S *table, const void *key, int keyLength, const void *value, int valueLength);

/** Returns the value of a key. Null with PAAERRNOTFOUND if there is none; null with paaerrno 0 is a value that was
 *  stored as null. */
void *paaFind(PAA_S *table, const void *key, int keyLength, int *valueLength);

/** Returns the table's own copy of the key. */
void *paaFindKey(PAA_S *table, const void *key, int keyLength);

/** Removes an entry and frees its key and, if it was copied, its value. Ends a walk in progress. */
int paaRemove(PAA_S *table, const void *key, int keyLength);

/* ---- Walk in order of insertion: each step returns a key ------------------------------------------------------
 * paaInsert of a new key and paaRemove end the walk: the next step reports PAAERRNOCURRENT. */

/** Starts at the oldest entry. PAAERRNOTFOUND in an empty table. */
void *paaFirst(PAA_S *table, int *keyLength);

/** Goes on. PAAERRNOTFOUND behind the newest entry, on which the walk stays. */
void *paaNext(PAA_S *table, int *keyLength);

/** Returns the value of the entry that the walk stands on. */
void *paaCurrent(PAA_S *table, int *valueLength);

/* ---- Walk in key order: each step returns a key ---------------------------------------------------------------
 * The first start after a change of the key set sorts the table; the order is kept until the next such change,
 * after which a step reports PAAERRNOCURRENT. The two walks don't disturb each other. */

/** Starts at the least key. PAAERRNOTFOUND in an empty table, PAAERRNOMEM if it could not be sorted. */
void *paaFirstSorted(PAA_S *table, int *keyLength);

/** Starts at the greatest key. Codes as for paaFirstSorted. */
void *paaLastSorted(PAA_S *table, int *keyLength);

/** Goes one key up. PAAERRNOTFOUND at the greatest, on which the walk stays. */
void *paaNextSorted(PAA_S *table, int *keyLength);

/** Goes one key down. PAAERRNOTFOUND at the least, on which the walk stays. */
void *paaPrevSorted(PAA_S *table, int *keyLength);

/** Returns the value of the entry that the sorted walk stands on. */
void *paaCurrentSorted(PAA_S *table, int *valueLength);

/* ---- Diagnosis ------------------------------------------------------------------------------------------------ */

/** Writes to standard error how many entries there are, and how many in each bucket that isn't empty. */
int paaDump(PAA_S *table);

#ifdef __cplusplus
}
#endif

#endif
