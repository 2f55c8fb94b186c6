/* Marks raw yuv420p frames through the installed library: reads IN, writes
 * OUT with every luma plane embedded, chroma copied. Settings are given as
 * name value pairs, as lumamark_params_set takes them.
 *   embed_frames IN OUT [name value ...]
 * Exit status 0, or 1 with a message. */
#include <lumamark/lumamark.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc < 3 || argc % 2 == 0) {
    fprintf(stderr, "usage: embed_frames IN OUT [name value ...]\n");
    return 1;
  }
  if (strcmp(lumamark_version(), "2.1.3") != 0) {
    fprintf(stderr, "unexpected library version %s\n", lumamark_version());
    return 1;
  }
  lumamark_params p;
  lumamark_params_default(&p);
  for (int i = 3; i + 1 < argc; i += 2) {
    const int rc = lumamark_params_set(&p, argv[i], argv[i + 1]);
    if (rc != LUMAMARK_OK) {
      fprintf(stderr, "%s: %s\n", argv[i], lumamark_strerror(rc));
      return 1;
    }
  }
  lumamark_embedder* e = NULL;
  int rc = lumamark_embedder_open(&p, &e);
  if (rc != LUMAMARK_OK) {
    fprintf(stderr, "open: %s\n", lumamark_strerror(rc));
    return 1;
  }
  const size_t luma = (size_t)p.width * (size_t)p.height;
  const size_t frame = luma * 3 / 2;
  unsigned char* buf = malloc(frame);
  FILE* in = fopen(argv[1], "rb");
  FILE* out = fopen(argv[2], "wb");
  if (buf == NULL || in == NULL || out == NULL) {
    fprintf(stderr, "cannot open the files\n");
    return 1;
  }
  while (fread(buf, 1, frame, in) == frame) {
    rc = lumamark_embedder_process(e, buf, p.width);
    if (rc != LUMAMARK_OK) {
      fprintf(stderr, "process: %s\n", lumamark_strerror(rc));
      return 1;
    }
    fwrite(buf, 1, frame, out);
  }
  fclose(in);
  fclose(out);
  free(buf);
  lumamark_embedder_close(e);
  return 0;
}
