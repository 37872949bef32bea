/* Writes the regulatory images into a folder, one file each, and then prints each notification as it is posted,
 * until its standard input ends. Usage: client FOLDER
 *
 *     cc -std=c99 -o client client.c $(pkg-config --cflags --libs corvane)
 */
#define _POSIX_C_SOURCE 200809L

#include <corvane.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

static bool fail(const char* what) {
  fprintf(stderr, "client: %s\n", what);
  return false;
}

/* The name of an image is no safe file name: it holds whatever somebody has stored. */
static bool save_image(const char* folder, int number, const corvane_image* image) {
  char path[4096];
  snprintf(path, sizeof path, "%s/image-%d.%s", folder, number, image->extension);
  FILE* file = fopen(path, "wb");
  if (file == NULL) return fail("cannot open a file in the folder");
  const bool is_written = fwrite(image->bytes, 1, image->length, file) == image->length;
  if (fclose(file) != 0 || !is_written) return fail("cannot write an image");
  printf("%s: %s, %zu bytes\n", path, image->media_type, image->length);
  return true;
}

static bool save_images(const char* folder) {
  corvane_error error;
  corvane_connection* connection;
  corvane_value* reply;
  if (corvane_connection_open(CORVANE_PUBLIC, NULL, CORVANE_DEFAULT_TIMEOUT, &connection, &error) != CORVANE_OK) {
    return fail(error.message);
  }
  const corvane_status status = corvane_get_images(connection, &reply, &error);
  corvane_connection_close(connection);
  if (status != CORVANE_OK) return fail(error.message);

  /* Without stored images there is no reply, and the walk finds nothing. */
  corvane_images* images = corvane_images_open(corvane_value_get(reply, "RegulatoryImages"));
  corvane_image image;
  corvane_status found = CORVANE_OK;
  bool is_saved = true;
  for (int number = 1; is_saved && (found = corvane_images_next(images, &image)) == CORVANE_OK; ++number) {
    is_saved = save_image(folder, number, &image);
  }
  corvane_images_close(images);
  corvane_value_release(reply);
  if (is_saved && found != CORVANE_END) return fail("out of memory");
  return is_saved;
}

/* Prints what has come. False when no more will come. */
static bool print_notifications(corvane_subscription* subscription) {
  corvane_error error;
  corvane_notification notification;
  corvane_status status;
  while ((status = corvane_subscription_next(subscription, 0, &notification, &error)) == CORVANE_OK) {
    if (notification.missed != 0) {
      printf("missed %lld\n", (long long)notification.missed);
    } else {
      printf("%s\n", notification.name);
    }
  }
  fflush(stdout);
  return status == CORVANE_TIMED_OUT || fail(error.message);
}

static bool follow(void) {
  corvane_error error;
  corvane_subscription* subscription;
  if (corvane_subscription_open(NULL, &subscription, &error) != CORVANE_OK) return fail(error.message);
  struct pollfd sources[] = {{corvane_subscription_descriptor(subscription), POLLIN, 0},
                             {STDIN_FILENO, POLLIN, 0}};
  bool is_open = true;
  while (is_open && poll(sources, 2, -1) > 0) {
    char ignored[256];
    if (sources[0].revents != 0) is_open = print_notifications(subscription);
    if (sources[1].revents != 0 && read(STDIN_FILENO, ignored, sizeof ignored) <= 0) break;
  }
  corvane_subscription_close(subscription);
  return is_open;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: client FOLDER\n");
    return 2;
  }
  const bool is_done = save_images(argv[1]) && fflush(stdout) == 0 && follow();
  return is_done ? 0 : 1;
}
