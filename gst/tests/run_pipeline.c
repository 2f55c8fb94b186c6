/* Runs a pipeline description as an application would: to PLAYING, then
 * waits on the bus for end of stream or the first error, and stops it.
 * Prints each element message's structure and each error on standard
 * output.
 *
 *   run_pipeline "videotestsrc num-buffers=3 ! lumamark ! fakesink"
 *
 * Exit status: 0 at end of stream, 1 after an error (also one that stops
 * the pipeline from starting), 2 for a description that does not parse,
 * 3 when nothing ends the run within 60 seconds. */
#include <gst/gst.h>
#include <stdio.h>

static int print_error(GstMessage* message) {
  GError* error = NULL;
  gchar* debug = NULL;
  gst_message_parse_error(message, &error, &debug);
  printf("ERROR: %s: %s\n", GST_OBJECT_NAME(GST_MESSAGE_SRC(message)), error->message);
  g_clear_error(&error);
  g_free(debug);
  return 1;
}

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  if (argc != 2) {
    fprintf(stderr, "usage: run_pipeline DESCRIPTION\n");
    return 2;
  }
  GError* error = NULL;
  GstElement* pipeline = gst_parse_launch(argv[1], &error);
  if (!pipeline || error) {
    fprintf(stderr, "run_pipeline: %s\n", error ? error->message : "no pipeline");
    return 2;
  }
  GstBus* bus = gst_element_get_bus(pipeline);
  int status = 3;
  const GstStateChangeReturn started = gst_element_set_state(pipeline, GST_STATE_PLAYING);
  const GstClockTime deadline = gst_util_get_timestamp() + 60 * GST_SECOND;
  while (status == 3) {
    const GstClockTime now = gst_util_get_timestamp();
    if (now >= deadline) break;
    GstMessage* message = gst_bus_timed_pop(bus, deadline - now);
    if (!message) break;
    switch (GST_MESSAGE_TYPE(message)) {
      case GST_MESSAGE_EOS:
        status = 0;
        break;
      case GST_MESSAGE_ERROR:
        status = print_error(message);
        break;
      case GST_MESSAGE_ELEMENT: {
        gchar* text = gst_structure_to_string(gst_message_get_structure(message));
        printf("%s: %s\n", GST_OBJECT_NAME(GST_MESSAGE_SRC(message)), text);
        g_free(text);
        break;
      }
      default:
        break;
    }
    gst_message_unref(message);
  }
  if (status == 3 && started == GST_STATE_CHANGE_FAILURE) status = 1;
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(bus);
  gst_object_unref(pipeline);
  fflush(stdout);
  return status;
}
