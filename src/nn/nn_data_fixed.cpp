// The compiled-in model: one file assembled into read-only data, and the records that point into
// it.
//
// The assembler places the file as a whole under one hidden symbol. Seen as a record, whose members
// are the tables, it gives every table a typed address constant, and needs no code at load. Works
// with GCC and Clang on ELF and WebAssembly.
#include "nn/model_file.h"

#if defined(__wasm__)
#define SE_READ_ONLY_DATA ".section .rodata.se_model,\"\",@\n"
#define SE_OBJECT "@object"
#define SE_SECTION_END ""
#else
#define SE_READ_ONLY_DATA ".pushsection .rodata.se_model,\"a\",%progbits\n"
#define SE_OBJECT "%object"
#define SE_SECTION_END ".popsection\n"
#endif

// SE_MODEL_FILE, the path of the file as a string literal, comes from the build.
__asm__(SE_READ_ONLY_DATA
        ".globl se_model_file\n"
        ".hidden se_model_file\n"
        ".type se_model_file, " SE_OBJECT
        "\n"
        ".p2align 6\n"
        "se_model_file:\n"
        ".incbin \"" SE_MODEL_FILE
        "\"\n"
        ".size se_model_file, . - se_model_file\n" SE_SECTION_END);

namespace {

struct ModelFile {
  unsigned char header[se::nn::kModelHeaderBytes];
#define SE_MODEL_TABLE(name, type, rows, columns) \
  alignas(se::nn::kModelAlignment) type name[std::size_t{rows} * (columns)];
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
};
static_assert(sizeof(ModelFile) == se::nn::kModelFileBytes);

}  // namespace

extern "C" __attribute__((visibility("hidden")))
const ModelFile se_model_record __asm__("se_model_file");

namespace {

constexpr se::nn::ModelPointers kTables = {
#define SE_MODEL_TABLE(name, type, rows, columns) se_model_record.name,
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
};

constexpr se::nn::LayerRecords kLayers = se::nn::layer_records(kTables);

}  // namespace

const DenoiseModel nn_denoise_model = se::nn::model_of(kLayers);
