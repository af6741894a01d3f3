// The compiled-in model: one file assembled into read-only data, and the records that point into
// it.
//
// The assembler places the file as a whole under one symbol and gives each table a symbol of its
// own at its offset, so that the records are typed address constants and need no code at load. All
// these symbols are hidden; only nn_denoise_model leaves the library. Works with GCC and Clang on
// ELF.
#include "nn/model_file.h"

// SE_MODEL_FILE, the path of the file as a string literal, comes from the build.
__asm__(
    ".pushsection .rodata.se_model,\"a\",%progbits\n"
    ".balign 64\n"
    ".globl se_model_file\n"
    ".hidden se_model_file\n"
    ".type se_model_file, %object\n"
    "se_model_file:\n"
    ".incbin \"" SE_MODEL_FILE
    "\"\n"
    ".size se_model_file, . - se_model_file\n"
#define SE_MODEL_TABLE(name, type, rows, columns, offset) \
  ".globl se_model_" #name                                \
  "\n"                                                    \
  ".hidden se_model_" #name                               \
  "\n"                                                    \
  ".set se_model_" #name ", se_model_file + " #offset "\n"
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE
    ".popsection\n");

#define SE_MODEL_TABLE(name, type, rows, columns, offset) \
  extern __attribute__((visibility("hidden")))            \
  const type name[std::size_t{rows} * (columns)] __asm__("se_model_" #name);
#include "nn/model_tables.def"
#undef SE_MODEL_TABLE

namespace {

using se::nn::kConv;
using se::nn::kGruInput;

constexpr Conv2DLayer conv1 =
    se::nn::conv_record(conv1_kernel, conv1_kernel_scale, conv1_bias, kConv[0]);
constexpr Conv2DLayer conv2 =
    se::nn::conv_record(conv2_kernel, conv2_kernel_scale, conv2_bias, kConv[1]);
constexpr Conv2DLayer conv3 =
    se::nn::conv_record(conv3_kernel, conv3_kernel_scale, conv3_bias, kConv[2]);
constexpr Conv2DLayer conv4 =
    se::nn::conv_record(conv4_kernel, conv4_kernel_scale, conv4_bias, kConv[3]);
constexpr Conv2DLayer conv5 =
    se::nn::conv_record(conv5_kernel, conv5_kernel_scale, conv5_bias, kConv[4]);
constexpr BNLayer bn1_bn = se::nn::bn_record(bn1_bn_gamma_var, bn1_bn_gmb, kConv[0]);
constexpr BNLayer bn2_bn = se::nn::bn_record(bn2_bn_gamma_var, bn2_bn_gmb, kConv[1]);
constexpr BNLayer bn3_bn = se::nn::bn_record(bn3_bn_gamma_var, bn3_bn_gmb, kConv[2]);
constexpr BNLayer bn4_bn = se::nn::bn_record(bn4_bn_gamma_var, bn4_bn_gmb, kConv[3]);
constexpr BNLayer bn5_bn = se::nn::bn_record(bn5_bn_gamma_var, bn5_bn_gmb, kConv[4]);
constexpr GRULayer gru1_1 = se::nn::gru_record(gru1_1_weight_ih, gru1_1_weight_hh, gru1_1_bias_ih,
                                               gru1_1_bias_hh, kGruInput[0]);
constexpr GRULayer gru1_2 = se::nn::gru_record(gru1_2_weight_ih, gru1_2_weight_hh, gru1_2_bias_ih,
                                               gru1_2_bias_hh, kGruInput[1]);
constexpr GRULayer gru2_1 = se::nn::gru_record(gru2_1_weight_ih, gru2_1_weight_hh, gru2_1_bias_ih,
                                               gru2_1_bias_hh, kGruInput[2]);
constexpr GRULayer gru2_2 = se::nn::gru_record(gru2_2_weight_ih, gru2_2_weight_hh, gru2_2_bias_ih,
                                               gru2_2_bias_hh, kGruInput[3]);
constexpr FCLayer fc1 = se::nn::fc_record(fc1_weight, fc1_weight_scale, fc1_bias);
constexpr FCLayer fc2 = se::nn::fc_record(fc2_weight, fc2_weight_scale, fc2_bias);

}  // namespace

const DenoiseModel nn_denoise_model = {&conv1,  &bn1_bn, &conv2, &bn2_bn, &conv3,  &bn3_bn,
                                       &conv4,  &bn4_bn, &conv5, &bn5_bn, &gru1_1, &gru1_2,
                                       &gru2_1, &gru2_2, &fc1,   &fc2};
