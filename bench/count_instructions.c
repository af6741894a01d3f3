/* A plugin for qemu-user (QEMU 4.2 or newer, plugin interface 0 to 1) that counts the instructions
 * a program executes, in all and per function.
 *
 *   cc -O2 -shared -fPIC -o count_instructions.so bench/count_instructions.c
 *   qemu-arm -plugin ./count_instructions.so,out=counts.txt PROGRAM ARGUMENTS
 *
 * writes one line "COUNT FUNCTION" per function, in no particular order. Functions are those of
 * PROGRAM's own symbol table: link it statically and do not strip it, or the libraries' share is
 * counted under "?". scripts and people use count_instructions.py, which takes two runs of
 * different length apart so that start-up cancels.
 *
 * How it counts: every translated block adds its length to the counter of the function in which it
 * starts, when it is executed. A block ends at a jump and is entered at its start only, so the
 * total is exact; a block that runs on from one function into the next is counted for the first.
 *
 * QEMU's header qemu-plugin.h is not part of the Debian package; the declarations below are those
 * of its documented interface that are used here. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
typedef struct qemu_info_t qemu_info_t;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb* tb);
typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void* userdata);

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, qemu_plugin_vcpu_tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* tb, enum qemu_plugin_op op,
                                              void* ptr, uint64_t imm);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb, void* userdata);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* tb, size_t idx);
const char* qemu_plugin_insn_symbol(const struct qemu_plugin_insn* insn);

#define EXPORT __attribute__((visibility("default")))

EXPORT int qemu_plugin_version = 1;

enum { MAX_FUNCTIONS = 8192 };

/* QEMU hands out the same string for every address of a function, so its address identifies it. The
 * last counter takes what does not fit. */
static const char* name[MAX_FUNCTIONS];
static uint64_t count[MAX_FUNCTIONS];
static int functions;
static char out_path[4096];

static uint64_t* counter_of(const char* function) {
  int i = 0;
  while (i < functions && name[i] != function) ++i;
  if (i == functions && functions < MAX_FUNCTIONS) name[functions++] = function;
  return &count[i < MAX_FUNCTIONS ? i : MAX_FUNCTIONS - 1];
}

static void on_translation(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  const char* function = qemu_plugin_insn_symbol(qemu_plugin_tb_get_insn(tb, 0));
  qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, counter_of(function),
                                           qemu_plugin_tb_n_insns(tb));
}

static void on_exit_of_program(qemu_plugin_id_t id, void* userdata) {
  (void)id;
  (void)userdata;
  FILE* out = out_path[0] ? fopen(out_path, "w") : stderr;
  if (!out) {
    perror(out_path);
    return;
  }
  for (int i = 0; i < functions; ++i) {
    const char* function = name[i] && name[i][0] ? name[i] : "?";
    fprintf(out, "%llu %s\n", (unsigned long long)count[i], function);
  }
  if (out != stderr) fclose(out);
}

EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t* info, int argc,
                               char** argv) {
  (void)info;
  for (int i = 0; i < argc; ++i) {
    if (strncmp(argv[i], "out=", 4) != 0 || strlen(argv[i] + 4) >= sizeof out_path) {
      fprintf(stderr, "count_instructions: the only argument is out=FILE, not %s\n", argv[i]);
      return -1;
    }
    strcpy(out_path, argv[i] + 4);
  }
  qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
  qemu_plugin_register_atexit_cb(id, on_exit_of_program, NULL);
  return 0;
}
