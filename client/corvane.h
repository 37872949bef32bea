#ifndef CORVANE_H
#define CORVANE_H

/* The client library of corvaned: ask the daemon, walk the values that it answers, follow its notifications. For
 * C99 and C++. docs/client.md has complete programs, docs/wire-protocol.md says what each method answers.
 *
 * Ownership. A `corvane_value *` is a reference, which the caller releases with corvane_value_release. A `const
 * corvane_value *`, and every other pointer into a value, is borrowed: valid as long as the value that it was
 * taken from. What is passed in stays the caller's, unless a function says that it takes it over.
 *
 * Threads. A connection, a subscription or an image walk is for one thread at a time. Values never change, and any
 * number of threads may use and release them at once.
 *
 * NULL. Every pointer may be NULL. Without a handle or a required argument a call answers CORVANE_BAD_REQUEST; a
 * value that is NULL has the kind CORVANE_NONE; a result without a place to put it is dropped.
 *
 * Text is UTF-8 that ends with a NUL, unless it has a length. Ill-formed text is refused; only the path `root` may
 * have any bytes.
 *
 * No function throws, ends the process, writes to standard output or error, or changes how signals are handled. */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- errors ---------------------------------------------------------------------------------------------- */

/* How a call ended. */
typedef enum corvane_status {
  CORVANE_OK = 0,
  CORVANE_REFUSED = 1,       /* no connection: nobody serves the socket, or none could be made */
  CORVANE_NOT_PERMITTED = 2, /* no connection: this user may not use the socket */
  CORVANE_CLOSED = 3,        /* the connection ended before the whole answer had come */
  CORVANE_TIMED_OUT = 4,     /* the timeout was over before the whole answer had come */
  CORVANE_BAD_ANSWER = 5,    /* what came is no answer to the request */
  CORVANE_BAD_REQUEST = 6,   /* nothing was sent: an argument is NULL, ill-formed or too large */
  CORVANE_DAEMON_ERROR = 7,  /* the daemon answered with an error, see `code` */
  CORVANE_NO_MEMORY = 8,
  CORVANE_WRONG_KIND = 9, /* the value is of another kind, or the number does not fit */
  CORVANE_END = 10        /* there are no more images */
} corvane_status;

/* What went wrong. Owned by the caller; every function that takes one fills it in, and after CORVANE_OK it has
 * no message. */
typedef struct corvane_error {
  corvane_status status;
  int64_t code;      /* the daemon's own code with CORVANE_DAEMON_ERROR, otherwise 0 */
  char message[512]; /* one line for a person, cut where it is longer */
} corvane_error;

/* ---- values ---------------------------------------------------------------------------------------------- */

/* A property-list value. It never changes. */
typedef struct corvane_value corvane_value;

typedef enum corvane_kind {
  CORVANE_NONE = 0, /* the kind of NULL only */
  CORVANE_DICTIONARY = 1,
  CORVANE_ARRAY = 2,
  CORVANE_SET = 3,
  CORVANE_STRING = 4,
  CORVANE_DATA = 5,
  CORVANE_DATE = 6,
  CORVANE_INTEGER = 7, /* from -2^63 to 2^64 - 1 */
  CORVANE_REAL = 8,
  CORVANE_BOOLEAN = 9
} corvane_kind;

corvane_kind corvane_value_kind(const corvane_value* value);

/* Another reference to a borrowed value, which the caller releases. */
corvane_value* corvane_value_retain(const corvane_value* value);
void corvane_value_release(corvane_value* value);

/* The entries, items or members of a container; 0 for any other kind. */
size_t corvane_value_count(const corvane_value* value);
/* The item, the member, or the value of the entry at a position; NULL beyond the end and for any other kind.
 * Dictionaries and sets have an order of their own, which stays the same for the same value. */
const corvane_value* corvane_value_at(const corvane_value* value, size_t position);
/* The key of a dictionary's entry at a position; otherwise NULL and a length of 0. U+0000 may occur inside. */
const char* corvane_value_key_at(const corvane_value* value, size_t position, size_t* length);
/* The value of a dictionary's entry; NULL where there is none, and for any other kind. */
const corvane_value* corvane_value_get(const corvane_value* value, const char* key);

/* The text of a string, which ends with a NUL; U+0000 may occur inside. For any other kind NULL and a length of 0.
 */
const char* corvane_value_string(const corvane_value* value, size_t* length);
/* The bytes of a data value, not NULL where there are none. For any other kind NULL and a length of 0. */
const void* corvane_value_data(const corvane_value* value, size_t* length);

/* These answer CORVANE_OK, or CORVANE_WRONG_KIND and leave the place for the result as it is. */
corvane_status corvane_value_int64(const corvane_value* value, int64_t* integer);
corvane_status corvane_value_uint64(const corvane_value* value, uint64_t* integer);
corvane_status corvane_value_real(const corvane_value* value, double* real);
corvane_status corvane_value_boolean(const corvane_value* value, bool* boolean);
/* A date, in seconds since 2001-01-01T00:00:00Z or since 1970-01-01T00:00:00Z. Fractions and dates before are
 * possible. The first form is the one that is stored, and loses nothing. */
corvane_status corvane_value_date(const corvane_value* value, double* seconds_since_2001);
corvane_status corvane_value_unix_time(const corvane_value* value, double* seconds_since_1970);

/* New values, owned by the caller. NULL where memory is out, and for what is no value: NULL, text that is not
 * UTF-8, a date that is not finite, members of a set that nest more than 128 deep, or that have more
 * than 64 MiB together with what they repeat counted each time. */
corvane_value* corvane_string_new(const char* text);
corvane_value* corvane_string_new_with_length(const char* text, size_t length);
corvane_value* corvane_data_new(const void* bytes, size_t length);
corvane_value* corvane_int64_new(int64_t integer);
corvane_value* corvane_uint64_new(uint64_t integer);
corvane_value* corvane_real_new(double real);
corvane_value* corvane_boolean_new(bool boolean);
corvane_value* corvane_date_new(double seconds_since_2001);
corvane_value* corvane_date_new_from_unix_time(double seconds_since_1970);

/* New containers. They take over the values, also where they answer NULL, and answer NULL where one of them is
 * NULL: a nest of calls has to be checked and released once. Of equal keys the last one counts, of equal members
 * of a set the first one. Without `key_lengths` each key ends with a NUL. */
corvane_value* corvane_array_new(corvane_value* const* items, size_t count);
corvane_value* corvane_set_new(corvane_value* const* members, size_t count);
corvane_value* corvane_dictionary_new(const char* const* keys, const size_t* key_lengths,
                                      corvane_value* const* values, size_t count);

/* ---- asking ---------------------------------------------------------------------------------------------- */

/* A connection to one of the daemon's services. It is made at the first request, and again at the next one where
 * the daemon has closed it meanwhile. A child process after fork may use what its parent has opened: it gets a
 * connection of its own. */
typedef struct corvane_connection corvane_connection;

typedef enum corvane_service {
  CORVANE_PUBLIC = 0, /* for every local process */
  CORVANE_ADMIN = 1   /* for root and the daemon's own user */
} corvane_service;

#define CORVANE_DEFAULT_TIMEOUT 5000 /* milliseconds */

/* `root` is the folder below which the daemon runs; NULL stands for the variable CORVANE_ROOT, and for the whole
 * system where that is not set. A program that has more rights than its user ignores the variable. The timeout, in
 * milliseconds, is that of each request, from connecting to the last byte of the answer. Nothing is connected yet.
 * On failure *connection is NULL. */
corvane_status corvane_connection_open(corvane_service service, const char* root, int timeout,
                                       corvane_connection** connection, corvane_error* error);
void corvane_connection_close(corvane_connection* connection);

/* Sends a request and waits for the answer. It is sent a second time, over a new connection, when one from an
 * earlier request turns out to be closed and no byte of an answer has come: a key that the first one removed is
 * not there for the second. `arguments` is a dictionary, or NULL for none. *reply becomes the
 * reply, a dictionary that the caller releases; NULL where the daemon gave none, and after any failure.
 *
 * After CORVANE_CLOSED, CORVANE_TIMED_OUT, CORVANE_BAD_ANSWER and CORVANE_NO_MEMORY it is not known whether the
 * daemon has acted on the request. The connection can be used again after every failure. */
corvane_status corvane_ask(corvane_connection* connection, const char* selector, const corvane_value* arguments,
                           corvane_value** reply, corvane_error* error);

/* The same for the methods that the daemon has. Where nothing else is said, NULL as *reply stands for "there is no
 * such thing". */

/* Of the public service. */
/* {"Version": string} */
corvane_status corvane_get_version(corvane_connection* connection, corvane_value** reply, corvane_error* error);
/* {"RegulatoryImages": value, "ProductVersion": string} */
corvane_status corvane_get_images(corvane_connection* connection, corvane_value** reply, corvane_error* error);

/* Of the admin service. */
/* Replaces the images. No reply. */
corvane_status corvane_store_images(corvane_connection* connection, const corvane_value* images,
                                    corvane_error* error);
/* What a process is entitled to. */
corvane_status corvane_get_entitlements(corvane_connection* connection, int32_t pid, corvane_value** reply,
                                        corvane_error* error);
/* How the daemon is. */
corvane_status corvane_get_status(corvane_connection* connection, corvane_value** reply, corvane_error* error);
/* {"DeviceType": dictionary, "Properties": dictionary, "Errors": array of strings}, with the answers to the device
 * properties that are named. */
corvane_status corvane_get_device(corvane_connection* connection, const char* const* properties, size_t count,
                                  corvane_value** reply, corvane_error* error);
/* The radio: what the telephony service says, and what the data ark has. */
corvane_status corvane_get_radio(corvane_connection* connection, corvane_value** reply, corvane_error* error);
/* {"CarrierBundle": dictionary} */
corvane_status corvane_get_carrier(corvane_connection* connection, corvane_value** reply, corvane_error* error);

/* The data ark, over the admin service. A domain that is NULL is none. */
/* {"Value": value, "Attributes": array of integers}: the entry; of set and remove the one that was before. */
corvane_status corvane_ark_get(corvane_connection* connection, const char* domain, const char* key,
                               corvane_value** reply, corvane_error* error);
corvane_status corvane_ark_set(corvane_connection* connection, const char* domain, const char* key,
                               const corvane_value* value, corvane_value** reply, corvane_error* error);
corvane_status corvane_ark_remove(corvane_connection* connection, const char* domain, const char* key,
                                  corvane_value** reply, corvane_error* error);
/* A page of the entries behind the key `after`, or from the first one where that is NULL: {"Entries": array of
 * dictionaries with "Key", "Value" and "Attributes", "Next": string, "Changes": integer}. "Next" is the `after` of
 * the next page, and is missing from the last one. */
corvane_status corvane_ark_list(corvane_connection* connection, const char* domain, const char* after,
                                corvane_value** reply, corvane_error* error);
/* Sets entries as a page has them. No reply. */
corvane_status corvane_ark_restore(corvane_connection* connection, const corvane_value* entries,
                                   corvane_error* error);
/* Gives a key just these attributes, each from 0 to 8; the domain itself where `key` is NULL. {"Attributes": array
 * of integers}: those before. */
corvane_status corvane_ark_set_attributes(corvane_connection* connection, const char* domain, const char* key,
                                          const unsigned* attributes, size_t count, corvane_value** reply,
                                          corvane_error* error);
/* {"Notification": string}: what is posted from now on whenever the value changes or is removed. */
corvane_status corvane_ark_watch(corvane_connection* connection, const char* domain, const char* key,
                                 corvane_value** reply, corvane_error* error);

/* ---- images ---------------------------------------------------------------------------------------------- */

/* A walk over the data values in a value: the regulatory images, whatever their nesting. */
typedef struct corvane_images corvane_images;

/* One of them. Its pointers are borrowed, and valid until the next call with the walk.
 *
 * The name is made of the keys and positions that lead to the image, with "/" between them. It is no safe file
 * name: keys hold whatever somebody has stored. The type goes by the first bytes: "image/png" and its usual
 * extension "png", for instance, or "application/octet-stream" and "bin" for what is not known. */
typedef struct corvane_image {
  const char* name;
  size_t name_length;
  const void* bytes;
  size_t length;
  const char* media_type;
  const char* extension;
} corvane_image;

/* Keeps a reference to the value. NULL where memory is out. A walk over NULL finds nothing. */
corvane_images* corvane_images_open(const corvane_value* value);
/* CORVANE_OK with the next image, CORVANE_END after the last one, or CORVANE_NO_MEMORY: then every further call
 * answers the same. */
corvane_status corvane_images_next(corvane_images* images, corvane_image* image);
void corvane_images_close(corvane_images* images);

/* ---- notifications --------------------------------------------------------------------------------------- */

/* A subscription to the system-wide notifications. Only the process that has opened it may read from it. */
typedef struct corvane_subscription corvane_subscription;

typedef struct corvane_notification {
  const char* name; /* borrowed, until the next call with the subscription; empty where `missed` is not 0 */
  size_t name_length;
  int64_t missed; /* how many notifications were dropped at this point, because too many were unread */
} corvane_notification;

/* Connects, within 5 s, or answers CORVANE_TIMED_OUT; `root` as above. On failure *subscription is NULL. */
corvane_status corvane_subscription_open(const char* root, corvane_subscription** subscription,
                                         corvane_error* error);
void corvane_subscription_close(corvane_subscription* subscription);

/* For the caller's own event loop: when it is readable, call corvane_subscription_next with a timeout of 0 until
 * that answers CORVANE_TIMED_OUT. It belongs to the subscription. -1 for NULL. */
int corvane_subscription_descriptor(const corvane_subscription* subscription);

/* Waits for the next notification, at most `timeout` milliseconds: 0 does not wait, a negative number waits for
 * ever. Answers CORVANE_TIMED_OUT where none has come whole. After CORVANE_CLOSED, CORVANE_BAD_ANSWER and
 * CORVANE_NO_MEMORY no more will come, and every further call answers the same. */
corvane_status corvane_subscription_next(corvane_subscription* subscription, int timeout,
                                         corvane_notification* notification, corvane_error* error);

#ifdef __cplusplus
}
#endif

#endif
