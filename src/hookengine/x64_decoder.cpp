#include "hookengine/x64_decoder.h"

#include <cstring>

namespace hookengine {
namespace {

constexpr size_t kMaxLength = 15;

// Operand shapes of an opcode after its ModRM (if any).
enum Imm : uint8_t {
  kI0,     // no immediate
  kIb,     // imm8
  kIw,     // imm16
  kIz,     // imm16 with 66, else imm32
  kIv,     // imm64 with REX.W, imm16 with 66, else imm32 (B8-BF)
  kIwb,    // imm16 + imm8 (ENTER)
  kMoffs,  // address-sized offset: 8 bytes, 4 with 67 (A0-A3)
  kRel8,
  kRelz,  // rel32 (66 ignored on near branches in 64-bit mode, as Intel CPUs do)
};

struct OpInfo {
  bool valid;
  bool modrm;
  Imm imm;
};

constexpr OpInfo X{false, false, kI0};  // invalid in 64-bit mode / undefined
constexpr OpInfo N{true, false, kI0};   // no operands in the encoding
constexpr OpInfo M{true, true, kI0};    // ModRM only
constexpr OpInfo MB{true, true, kIb};   // ModRM + imm8
constexpr OpInfo MZ{true, true, kIz};   // ModRM + imm16/32
constexpr OpInfo B{true, false, kIb};
constexpr OpInfo W{true, false, kIw};
constexpr OpInfo Z{true, false, kIz};
constexpr OpInfo R8{true, false, kRel8};
constexpr OpInfo RZ{true, false, kRelz};
constexpr OpInfo P = X;  // prefixes and escapes: handled before the table is consulted

// clang-format off
const OpInfo kOneByte[256] = {
  // 00-0F
  M, M, M, M, B, Z, X, X,   M, M, M, M, B, Z, X, P,
  // 10-1F
  M, M, M, M, B, Z, X, X,   M, M, M, M, B, Z, X, X,
  // 20-2F
  M, M, M, M, B, Z, P, X,   M, M, M, M, B, Z, P, X,
  // 30-3F
  M, M, M, M, B, Z, P, X,   M, M, M, M, B, Z, P, X,
  // 40-4F REX (handled as prefixes)
  P, P, P, P, P, P, P, P,   P, P, P, P, P, P, P, P,
  // 50-5F push/pop
  N, N, N, N, N, N, N, N,   N, N, N, N, N, N, N, N,
  // 60-6F: 60/61 invalid, 62 EVEX, 63 movsxd, 64-67 prefixes, push imm, imul, ins/outs
  X, X, P, M, P, P, P, P,   Z, MZ, B, MB, N, N, N, N,
  // 70-7F Jcc rel8
  R8, R8, R8, R8, R8, R8, R8, R8,   R8, R8, R8, R8, R8, R8, R8, R8,
  // 80-8F: 82 invalid; 8F is pop /0 or XOP
  MB, MZ, X, MB, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 90-9F: 9A (far call) invalid
  N, N, N, N, N, N, N, N,   N, N, X, N, N, N, N, N,
  // A0-AF: A0-A3 moffs (special-cased), A8 test al, A9 test eax
  N, N, N, N, N, N, N, N,   B, Z, N, N, N, N, N, N,
  // B0-BF: mov r8, imm8; mov r, imm (special-cased)
  B, B, B, B, B, B, B, B,   N, N, N, N, N, N, N, N,
  // C0-CF: C4/C5 VEX; C8 ENTER (special-cased); CE INTO invalid
  MB, MB, W, N, P, P, MB, MZ,   N, N, W, N, N, B, X, N,
  // D0-DF: D4/D5/D6 invalid; D8-DF x87
  M, M, M, M, X, X, X, N,   M, M, M, M, M, M, M, M,
  // E0-EF: loop/jrcxz, in/out imm8, call/jmp rel32, EA invalid, jmp rel8
  R8, R8, R8, R8, B, B, B, B,   RZ, RZ, X, R8, N, N, N, N,
  // F0-FF: F6/F7 immediates depend on /reg (special-cased)
  P, N, P, P, N, N, M, M,   N, N, N, N, N, N, M, M,
};

const OpInfo kTwoByte[256] = {
  // 0F 00-0F: 0D prefetch; 0E femms and 0F 3DNow! are refused (see the header)
  M, M, M, M, X, N, N, N,   N, N, X, N, X, M, X, X,
  // 10-1F
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 20-2F: 20-23 mov cr/dr (ModRM always a register form), 24-27 invalid
  M, M, M, M, X, X, X, X,   M, M, M, M, M, M, M, M,
  // 30-3F: 38/3A escapes
  N, N, N, N, N, N, X, N,   P, X, P, X, X, X, X, X,
  // 40-4F cmov
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 50-5F
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 60-6F
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 70-7F: 70-73 imm8, 77 emms, 78/79 vmread/vmwrite or SSE4a (special-cased)
  MB, MB, MB, MB, M, M, M, N,   M, M, X, X, M, M, M, M,
  // 80-8F Jcc rel32
  RZ, RZ, RZ, RZ, RZ, RZ, RZ, RZ,   RZ, RZ, RZ, RZ, RZ, RZ, RZ, RZ,
  // 90-9F setcc
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // A0-AF: A6/A7 VIA PadLock (montmul/xsha, xstore/xcrypt: register-form ModRM)
  N, N, N, M, MB, M, M, M,   N, N, N, M, MB, M, M, M,
  // B0-BF: B8 popcnt (with F3), B9 ud1, BA group 8 imm8
  M, M, M, M, M, M, M, M,   M, M, MB, M, M, M, M, M,
  // C0-CF: C8-CF bswap
  M, M, MB, M, MB, MB, MB, M,   N, N, N, N, N, N, N, N,
  // D0-DF
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // E0-EF
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // F0-FF: FF ud0
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
};

// Which ModRM forms each opcode of the 0F, 0F 38 and 0F 3A maps defines, for each mandatory
// prefix in the order none, 66, F3, F2: '.' undefined, 'a' any, 'm' memory operand only,
// 'r' register operand only, 's' memory operand with a SIB byte only (VSIB gathers, tile
// loads: VEX maps), '?' depends on the reg (and rm) field: see kGroups.
const char kForms0F[] =
    "???? ???? aaaa aaaa .... aaaa aaaa aaaa "  // 00
    "aaaa aaaa .... aaaa .... aaaa .... .... "  // 08
    "aaaa aaaa amaa mm.. aa.. aa.. ama. mm.. "  // 10
    "aaaa aaaa ???? ???? aaaa aaaa aaaa aaaa "  // 18
    "???? aaaa ???? aaaa .... .... .... .... "  // 20
    "aa.. aa.. aaaa mmmm aaaa aaaa aa.. aa.. "  // 28
    "aaaa aaaa aaaa aaaa aaaa aaaa .... a... "  // 30
    ".... .... .... .... .... .... .... .... "  // 38
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // 40
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // 48
    "rr.. aaaa a.a. a.a. aa.. aa.. aa.. aa.. "  // 50
    "aaaa aaaa aaaa aaa. aaaa aaaa aaaa aaaa "  // 58
    "aa.. aa.. aa.. aa.. aa.. aa.. aa.. aa.. "  // 60
    "aa.. aa.. aa.. aa.. .a.. .a.. aa.. aaa. "  // 68
    "aaaa ??.. ??.. ??.. aa.. aa.. aa.. a... "  // 70
    "a?.r ar.r .... .... .a.a .a.a aaa. aaa. "  // 78
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // 80
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // 88
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // 90
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // 98
    "aaaa aaaa aaaa aaaa aaaa aaaa ..?. ???. "  // A0
    "aaaa aaaa aaaa aaaa aaaa aaaa ???? aaaa "  // A8
    "aaaa aaaa mmmm aaaa mmmm mmmm aaaa aaaa "  // B0
    "..a. aaaa ???? aaaa aaaa aaaa aaaa aaaa "  // B8
    "aaaa aaaa aaaa m... aa.. rr.. aa.. ???? "  // C0
    "aaaa aaaa aaaa aaaa aaaa aaaa aaaa aaaa "  // C8
    ".a.a aa.. aa.. aa.. aa.. aa.. .arr rr.. "  // D0
    "aa.. aa.. aa.. aa.. aa.. aa.. aa.. aa.. "  // D8
    "aa.. aa.. aa.. aa.. aa.. aa.. .aaa mm.. "  // E0
    "aa.. aa.. aa.. aa.. aa.. aa.. aa.. aa.. "  // E8
    "...m aa.. aa.. aa.. aa.. aa.. aa.. rr.. "  // F0
    "aa.. aa.. aa.. aa.. aa.. aa.. aa.. aaaa "  // F8
    ;
const char kForms0F38[] =
    "aa.. aa.. aa.. aa.. aa.. aa.. aa.. aa.. "  // 00
    "aa.. aa.. aa.. aa.. .... .... .... .... "  // 08
    ".a.. .... .... .... .a.. .a.. .... .a.. "  // 10
    ".... .... .... .... aa.. aa.. aa.. .... "  // 18
    ".a.. .a.. .a.. .a.. .a.. .a.. .... .... "  // 20
    ".a.. .a.. .m.. .a.. .... .... .... .... "  // 28
    ".a.. .a.. .a.. .a.. .a.. .a.. .... .a.. "  // 30
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 38
    ".a.. .a.. .... .... .... .... .... .... "  // 40
    ".... .... .... .... .... .... .... .... "  // 48
    ".... .... .... .... .... .... .... .... "  // 50
    ".... .... .... .... .... .... .... .... "  // 58
    ".... .... .... .... .... .... .... .... "  // 60
    ".... .... .... .... .... .... .... .... "  // 68
    ".... .... .... .... .... .... .... .... "  // 70
    ".... .... .... .... .... .... .... .... "  // 78
    ".m.. .m.. .m.. .... .... .... .... .... "  // 80
    ".... .... .... .... .... .... .... .... "  // 88
    ".... .... .... .... .... .... .... .... "  // 90
    ".... .... .... .... .... .... .... .... "  // 98
    ".... .... .... .... .... .... .... .... "  // A0
    ".... .... .... .... .... .... .... .... "  // A8
    ".... .... .... .... .... .... .... .... "  // B0
    ".... .... .... .... .... .... .... .... "  // B8
    ".... .... .... .... .... .... .... .... "  // C0
    "a... a... a... a... a... a... .... .a.. "  // C8
    ".... .... .... .... .... .... .... .... "  // D0
    "..?. .... .... .a.. .aa. .am. .am. .am. "  // D8
    ".... .... .... .... .... .... .... .... "  // E0
    ".... .... .... .... .... .... .... .... "  // E8
    "mm.a mm.a .... .... .... .m.. maa. .... "  // F0
    ".mmm m... ..r. ..r. .... .... .... .... "  // F8
    ;
const char kForms0F3A[] =
    ".... .... .... .... .... .... .... .... "  // 00
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. aa.. "  // 08
    ".... .... .... .... .a.. .a.. .a.. .a.. "  // 10
    ".... .... .... .... .... .... .... .... "  // 18
    ".a.. .a.. .a.. .... .... .... .... .... "  // 20
    ".... .... .... .... .... .... .... .... "  // 28
    ".... .... .... .... .... .... .... .... "  // 30
    ".... .... .... .... .... .... .... .... "  // 38
    ".a.. .a.. .a.. .... .a.. .... .... .... "  // 40
    ".... .... .... .... .... .... .... .... "  // 48
    ".... .... .... .... .... .... .... .... "  // 50
    ".... .... .... .... .... .... .... .... "  // 58
    ".a.. .a.. .a.. .a.. .... .... .... .... "  // 60
    ".... .... .... .... .... .... .... .... "  // 68
    ".... .... .... .... .... .... .... .... "  // 70
    ".... .... .... .... .... .... .... .... "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .... .... .... .... "  // 88
    ".... .... .... .... .... .... .... .... "  // 90
    ".... .... .... .... .... .... .... .... "  // 98
    ".... .... .... .... .... .... .... .... "  // A0
    ".... .... .... .... .... .... .... .... "  // A8
    ".... .... .... .... .... .... .... .... "  // B0
    ".... .... .... .... .... .... .... .... "  // B8
    ".... .... .... .... .... .... .... .... "  // C0
    ".... .... .... .... a... .... .a.. .a.. "  // C8
    ".... .... .... .... .... .... .... .... "  // D0
    ".... .... .... .... .... .... .... .a.. "  // D8
    ".... .... .... .... .... .... .... .... "  // E0
    ".... .... .... .... .... .... .... .... "  // E8
    "..?. .... .... .... .... .... .... .... "  // F0
    ".... .... .... .... .... .... .... .... "  // F8
    ;

// The same for VEX (C4/C5) maps 0F, 0F 38 and 0F 3A, by the pp field, for any VEX.L and VEX.W.
const char kFormsVex0F[] =
    ".... .... .... .... .... .... .... .... "  // 00
    ".... .... .... .... .... .... .... .... "  // 08
    "aaaa aaaa amaa mm.. aa.. aa.. ama. mm.. "  // 10
    ".... .... .... .... .... .... .... .... "  // 18
    ".... .... .... .... .... .... .... .... "  // 20
    "aa.. aa.. ..aa mm.. ..aa ..aa aa.. aa.. "  // 28
    ".... .... .... .... .... .... .... .... "  // 30
    ".... .... .... .... .... .... .... .... "  // 38
    ".... rr.. rr.. .... rr.. rr.. rr.. rr.. "  // 40
    ".... .... rr.. rr.. .... .... .... .... "  // 48
    "rr.. aaaa a.a. a.a. aa.. aa.. aa.. aa.. "  // 50
    "aaaa aaaa aaaa aaa. aaaa aaaa aaaa aaaa "  // 58
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 60
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .aa. "  // 68
    ".aaa .?.. .?.. .?.. .a.. .a.. .a.. a... "  // 70
    ".... .... .... .... .a.a .a.a .aa. .aa. "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .... .... .... .... "  // 88
    "aa.. mm.. rr.r rr.r .... .... .... .... "  // 90
    "rr.. rr.. .... .... .... .... .... .... "  // 98
    ".... .... .... .... .... .... .... .... "  // A0
    ".... .... .... .... .... .... ?... .... "  // A8
    ".... .... .... .... .... .... .... .... "  // B0
    ".... .... .... .... .... .... .... .... "  // B8
    ".... .... aaaa .... .a.. .r.. aa.. .... "  // C0
    ".... .... .... .... .... .... .... .... "  // C8
    ".a.a .a.. .a.. .a.. .a.. .a.. .a.. .r.. "  // D0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // D8
    ".a.. .a.. .a.. .a.. .a.. .a.. .aaa .m.. "  // E0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // E8
    "...m .a.. .a.. .a.. .a.. .a.. .a.. .r.. "  // F0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .... "  // F8
    ;
const char kFormsVex0F38[] =
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 00
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 08
    ".... .... .... .a.. .... .... .a.. .a.. "  // 10
    ".a.. .a.. .m.. .... .a.. .a.. .a.. .... "  // 18
    ".a.. .a.. .a.. .a.. .a.. .a.. .... .... "  // 20
    ".a.. .a.. .m.. .a.. .m.. .m.. .m.. .m.. "  // 28
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 30
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 38
    ".a.. .a.. .... .... .... .a.. .a.. .a.. "  // 40
    ".... ??.. .... .sss .... .... .... .... "  // 48
    ".a.. .a.. .a.. .a.. .... .... .... .... "  // 50
    ".a.. .a.. .m.. .... ..r. .... rrrr .... "  // 58
    ".... .... .... .... .... .... .... .... "  // 60
    ".... .... .... .... .... .... .... .... "  // 68
    ".... .... .... .... .... .... .... .... "  // 70
    ".a.. .a.. .... .... .... .... .... .... "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .m.. .... .m.. .... "  // 88
    ".s.. .s.. .s.. .s.. .... .... .a.. .a.. "  // 90
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 98
    ".... .... .... .... .... .... .a.. .a.. "  // A0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // A8
    ".... .... .... .... .... .... .a.. .a.. "  // B0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // B8
    ".... .... .... .... .... .... .... .... "  // C0
    ".... .... .... .... .... .... .... .a.. "  // C8
    ".... .... .... .... .... .... .... .... "  // D0
    ".... .... .... .a.. .a.. .a.. .a.. .a.. "  // D8
    ".... .... .... .... .... .... .... .... "  // E0
    ".... .... .... .... .... .... .... .... "  // E8
    ".... .... a... ?... .... a.aa ...a aaaa "  // F0
    ".... .... .... .... .... .... .... .... "  // F8
    ;
const char kFormsVex0F3A[] =
    ".a.. .a.. .a.. .... .a.. .a.. .a.. .... "  // 00
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 08
    ".... .... .... .... .a.. .a.. .a.. .a.. "  // 10
    ".a.. .a.. .... .... .... .a.. .... .... "  // 18
    ".a.. .a.. .a.. .... .... .... .... .... "  // 20
    ".... .... .... .... .... .... .... .... "  // 28
    ".r.. .r.. .r.. .r.. .... .... .... .... "  // 30
    ".a.. .a.. .... .... .... .... .... .... "  // 38
    ".a.. .a.. .a.. .... .a.. .... .a.. .... "  // 40
    ".a.. .a.. .a.. .a.. .a.. .... .... .... "  // 48
    ".... .... .... .... .... .... .... .... "  // 50
    ".... .... .... .... .a.. .a.. .a.. .a.. "  // 58
    ".a.. .a.. .a.. .a.. .... .... .... .... "  // 60
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 68
    ".... .... .... .... .... .... .... .... "  // 70
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .... .... .... .... "  // 88
    ".... .... .... .... .... .... .... .... "  // 90
    ".... .... .... .... .... .... .... .... "  // 98
    ".... .... .... .... .... .... .... .... "  // A0
    ".... .... .... .... .... .... .... .... "  // A8
    ".... .... .... .... .... .... .... .... "  // B0
    ".... .... .... .... .... .... .... .... "  // B8
    ".... .... .... .... .... .... .... .... "  // C0
    ".... .... .... .... .... .... .a.. .a.. "  // C8
    ".... .... .... .... .... .... .... .... "  // D0
    ".... .... .... .... .... .... .... .a.. "  // D8
    ".... .... .... .... .... .... .... .... "  // E0
    ".... .... .... .... .... .... .... .... "  // E8
    "...a .... .... .... .... .... .... .... "  // F0
    ".... .... .... .... .... .... .... .... "  // F8
    ;

// What each VEX opcode allows of VEX.L, VEX.W, vvvv and VEX.R, by pp, in the layout of
// kFormsVex*: a letter naming a VexRule below ('.' where the opcode is undefined). Memory forms
// of vmovss/vmovsd (F3/F2 0F 10/11) leave vvvv unused, unlike their register forms.
enum Vvvv : uint8_t {
  kNoVvvv,   // no register: vvvv must be 1111
  kLowVvvv,  // a mask or tile register: 0-7 only
  kAnyVvvv,
};
struct VexRule {
  uint8_t lw;      // bit (L + 2 * W) set: that VEX.L and VEX.W combination is defined
  Vvvv vvvv;
  bool r_allowed;  // false: VEX.R must not extend ModRM.reg (mask or tile registers)
};
const VexRule kVexRules[] = {
    {0xF, kAnyVvvv, true},  // a
    {0xF, kNoVvvv, true},  // b
    {0x5, kNoVvvv, true},  // c
    {0x5, kAnyVvvv, true},  // d
    {0x3, kAnyVvvv, true},  // e
    {0x5, kNoVvvv, false},  // f
    {0xA, kLowVvvv, false},  // g
    {0x3, kNoVvvv, true},  // h
    {0x2, kAnyVvvv, true},  // i
    {0x1, kNoVvvv, false},  // j
    {0x1, kLowVvvv, false},  // k
    {0x2, kNoVvvv, true},  // l
    {0x1, kNoVvvv, true},  // m
    {0x8, kNoVvvv, true},  // n
    {0xC, kAnyVvvv, true},  // o
    {0x2, kLowVvvv, false},  // p
};
const char kRulesVex0F[] =
    ".... .... .... .... .... .... .... .... "  // 00
    ".... .... .... .... .... .... .... .... "  // 08
    "bbaa bbaa ddbb cc.. aa.. aa.. ddb. cc.. "  // 10
    ".... .... .... .... .... .... .... .... "  // 18
    ".... .... .... .... .... .... .... .... "  // 20
    "bb.. bb.. ..aa bb.. ..bb ..bb bb.. bb.. "  // 28
    ".... .... .... .... .... .... .... .... "  // 30
    ".... .... .... .... .... .... .... .... "  // 38
    ".... gg.. gg.. .... ff.. gg.. gg.. gg.. "  // 40
    ".... .... gg.. gp.. .... .... .... .... "  // 48
    "bb.. bbaa b.a. b.a. aa.. aa.. aa.. aa.. "  // 50
    "aaaa aaaa bbaa bbb. aaaa aaaa aaaa aaaa "  // 58
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 60
    ".a.. .a.. .a.. .a.. .a.. .a.. .c.. .bb. "  // 68
    ".bbb .a.. .a.. .a.. .a.. .a.. .a.. b... "  // 70
    ".... .... .... .... .a.a .a.a .cc. .bb. "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .... .... .... .... "  // 88
    "ff.. ff.. jj.f mm.c .... .... .... .... "  // 90
    "ff.. ff.. .... .... .... .... .... .... "  // 98
    ".... .... .... .... .... .... .... .... "  // A0
    ".... .... .... .... .... .... c... .... "  // A8
    ".... .... .... .... .... .... .... .... "  // B0
    ".... .... .... .... .... .... .... .... "  // B8
    ".... .... aaaa .... .d.. .c.. aa.. .... "  // C0
    ".... .... .... .... .... .... .... .... "  // C8
    ".a.a .a.. .a.. .a.. .a.. .a.. .c.. .b.. "  // D0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // D8
    ".a.. .a.. .a.. .a.. .a.. .a.. .bbb .b.. "  // E0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // E8
    "...b .a.. .a.. .a.. .a.. .a.. .a.. .c.. "  // F0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .... "  // F8
    ;
const char kRulesVex0F38[] =
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 00
    ".a.. .a.. .a.. .a.. .e.. .e.. .h.. .h.. "  // 08
    ".... .... .... .h.. .... .... .i.. .b.. "  // 10
    ".h.. .l.. .l.. .... .b.. .b.. .b.. .... "  // 18
    ".b.. .b.. .b.. .b.. .b.. .b.. .... .... "  // 20
    ".a.. .a.. .b.. .a.. .e.. .e.. .e.. .e.. "  // 28
    ".b.. .b.. .b.. .b.. .b.. .b.. .i.. .a.. "  // 30
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 38
    ".a.. .c.. .... .... .... .a.. .e.. .a.. "  // 40
    ".... mm.. .... .jjj .... .... .... .... "  // 48
    ".e.. .e.. .e.. .e.. .... .... .... .... "  // 50
    ".h.. .h.. .l.. .... ..k. .... kkkk .... "  // 58
    ".... .... .... .... .... .... .... .... "  // 60
    ".... .... .... .... .... .... .... .... "  // 68
    ".... .... .... .... .... .... .... .... "  // 70
    ".h.. .h.. .... .... .... .... .... .... "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .a.. .... .a.. .... "  // 88
    ".a.. .a.. .a.. .a.. .... .... .a.. .a.. "  // 90
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 98
    ".... .... .... .... .... .... .a.. .a.. "  // A0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // A8
    ".... .... .... .... .... .... .a.. .a.. "  // B0
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // B8
    ".... .... .... .... .... .... .... .... "  // C0
    ".... .... .... .... .... .... .... .e.. "  // C8
    ".... .... .... .... .... .... .... .... "  // D0
    ".... .... .... .c.. .a.. .a.. .a.. .a.. "  // D8
    ".... .... .... .... .... .... .... .... "  // E0
    ".... .... .... .... .... .... .... .... "  // E8
    ".... .... d... d... .... d.dd ...d dddd "  // F0
    ".... .... .... .... .... .... .... .... "  // F8
    ;
const char kRulesVex0F3A[] =
    ".n.. .n.. .e.. .... .h.. .h.. .i.. .... "  // 00
    ".b.. .b.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 08
    ".... .... .... .... .c.. .c.. .c.. .c.. "  // 10
    ".i.. .l.. .... .... .... .h.. .... .... "  // 18
    ".d.. .d.. .d.. .... .... .... .... .... "  // 20
    ".... .... .... .... .... .... .... .... "  // 28
    ".f.. .f.. .f.. .f.. .... .... .... .... "  // 30
    ".i.. .l.. .... .... .... .... .... .... "  // 38
    ".a.. .d.. .a.. .... .a.. .... .i.. .... "  // 40
    ".a.. .a.. .e.. .e.. .e.. .... .... .... "  // 48
    ".... .... .... .... .... .... .... .... "  // 50
    ".... .... .... .... .a.. .a.. .a.. .a.. "  // 58
    ".c.. .c.. .c.. .c.. .... .... .... .... "  // 60
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 68
    ".... .... .... .... .... .... .... .... "  // 70
    ".a.. .a.. .a.. .a.. .a.. .a.. .a.. .a.. "  // 78
    ".... .... .... .... .... .... .... .... "  // 80
    ".... .... .... .... .... .... .... .... "  // 88
    ".... .... .... .... .... .... .... .... "  // 90
    ".... .... .... .... .... .... .... .... "  // 98
    ".... .... .... .... .... .... .... .... "  // A0
    ".... .... .... .... .... .... .... .... "  // A8
    ".... .... .... .... .... .... .... .... "  // B0
    ".... .... .... .... .... .... .... .... "  // B8
    ".... .... .... .... .... .... .... .... "  // C0
    ".... .... .... .... .... .... .o.. .o.. "  // C8
    ".... .... .... .... .... .... .... .... "  // D0
    ".... .... .... .... .... .... .... .c.. "  // D8
    ".... .... .... .... .... .... .... .... "  // E0
    ".... .... .... .... .... .... .... .... "  // E8
    "...c .... .... .... .... .... .... .... "  // F0
    ".... .... .... .... .... .... .... .... "  // F8
    ;

enum Mandatory : uint8_t { kNone, k66, kF3, kF2, kAny };

// Opcodes whose defined forms depend on the ModRM reg field (and, for register operands, on
// rm): for a map (0 one-byte, 1 0F, 2 0F 38, 3 0F 3A) and mandatory prefix, bit r of mem_regs
// allows a memory operand with reg == r, bit (modrm - 0xC0) of reg_modrm a register operand.
struct Group {
  uint8_t map, op;
  Mandatory prefix;
  uint8_t mem_regs;
  uint64_t reg_modrm;
};
const Group kGroups[] = {
  // One-byte map: mov to/from segment registers (no /6, /7; no mov to cs), lea, pop, mov imm
  // and xabort/xbegin (C6/C7 F8 only), inc/dec, group 5; x87 escapes with their reserved forms.
  {0, 0x8C, kAny, 0x3F, 0x0000FFFFFFFFFFFFULL},
  {0, 0x8D, kAny, 0xFF, 0},
  {0, 0x8E, kAny, 0x3D, 0x0000FFFFFFFF00FFULL},
  {0, 0x8F, kAny, 0x01, 0x00000000000000FFULL},
  {0, 0xC6, kAny, 0x01, 0x01000000000000FFULL},
  {0, 0xC7, kAny, 0x01, 0x01000000000000FFULL},
  {0, 0xFE, kAny, 0x03, 0x000000000000FFFFULL},
  {0, 0xFF, kAny, 0x7F, 0x00FF00FF00FFFFFFULL},
  {0, 0xD8, kAny, 0xFF, 0xFFFFFFFFFFFFFFFFULL},
  {0, 0xD9, kAny, 0xFD, 0xFFFF7F33FF01FFFFULL},
  {0, 0xDA, kAny, 0xFF, 0x00000200FFFFFFFFULL},
  {0, 0xDB, kAny, 0xAF, 0x00FFFF1FFFFFFFFFULL},
  {0, 0xDC, kAny, 0xFF, 0xFFFFFFFFFFFFFFFFULL},
  {0, 0xDD, kAny, 0xDF, 0x0000FFFFFFFFFFFFULL},
  {0, 0xDE, kAny, 0xFF, 0xFFFFFFFF02FFFFFFULL},
  {0, 0xDF, kAny, 0xFF, 0x00FFFF01FFFFFFFFULL},
  // 0F map: system groups 6 and 7, MPX, mov cr (cr0, cr2-cr4), shifts by imm8, vmread and
  // SSE4a, VIA PadLock, group 15 (fences, fsgsbase, ...), bit tests by imm8, group 9.
  {1, 0x00, kAny, 0x3F, 0x0000FFFFFFFFFFFFULL},
  {1, 0x01, kNone, 0xDF, 0xFFFFC1FFFFF38F3FULL},
  {1, 0x01, k66, 0xDF, 0x33FF00FFFF00F000ULL},
  {1, 0x01, kF3, 0xFF, 0xF7FFF5FFFF000000ULL},
  {1, 0x01, kF2, 0xDF, 0xF3FF03FFFF000000ULL},
  {1, 0x1A, kNone, 0x0F, 0xFFFFFFFFFFFFFFFFULL},
  {1, 0x1A, k66, 0x0F, 0x000000000F0F0F0FULL},
  {1, 0x1A, kF3, 0x0F, 0x00000000FFFFFFFFULL},
  {1, 0x1A, kF2, 0x0F, 0x00000000FFFFFFFFULL},
  {1, 0x1B, kNone, 0x0F, 0xFFFFFFFFFFFFFFFFULL},
  {1, 0x1B, k66, 0x0F, 0x000000000F0F0F0FULL},
  {1, 0x1B, kF3, 0x0F, 0xFFFFFFFFFFFFFFFFULL},
  {1, 0x1B, kF2, 0x0F, 0x00000000FFFFFFFFULL},
  {1, 0x20, kAny, 0x1D, 0x000000FFFFFF00FFULL},
  {1, 0x22, kAny, 0x1D, 0x000000FFFFFF00FFULL},
  {1, 0x71, kNone, 0x00, 0x00FF00FF00FF0000ULL},
  {1, 0x71, k66, 0x00, 0x00FF00FF00FF0000ULL},
  {1, 0x72, kNone, 0x00, 0x00FF00FF00FF0000ULL},
  {1, 0x72, k66, 0x00, 0x00FF00FF00FF0000ULL},
  {1, 0x73, kNone, 0x00, 0x00FF000000FF0000ULL},
  {1, 0x73, k66, 0x00, 0xFFFF0000FFFF0000ULL},
  {1, 0x78, k66, 0x00, 0x00000000000000FFULL},
  {1, 0xA6, kF3, 0x00, 0x0000000000010101ULL},
  {1, 0xA7, kNone, 0x00, 0x0000000000000001ULL},
  {1, 0xA7, k66, 0x00, 0x0000000000000001ULL},
  {1, 0xA7, kF3, 0x00, 0x0000010101010101ULL},
  {1, 0xAE, kNone, 0xFF, 0xFFFFFF0000000000ULL},
  {1, 0xAE, k66, 0xC0, 0x00FF000000000000ULL},
  {1, 0xAE, kF3, 0x50, 0x00FFFFFFFFFFFFFFULL},
  {1, 0xAE, kF2, 0x00, 0x00FF000000000000ULL},
  {1, 0xBA, kAny, 0xF0, 0xFFFFFFFF00000000ULL},
  {1, 0xC7, kNone, 0xFA, 0xFFFF000000000000ULL},
  {1, 0xC7, k66, 0x42, 0xFFFF000000000000ULL},
  {1, 0xC7, kF3, 0x42, 0xFFFF000000000000ULL},
  {1, 0xC7, kF2, 0x02, 0},
  // 0F 38 D8 (Key Locker aes*kl) and 0F 3A F0 (hreset).
  {2, 0xD8, kF3, 0x0F, 0},
  {3, 0xF0, kF3, 0x00, 0x0000000000000001ULL},
  // VEX (maps 5-7 here): shifts by imm8, ldmxcsr/stmxcsr, AMX tile set-up, BMI1 group 17.
  {5, 0x71, k66, 0x00, 0x00FF00FF00FF0000ULL},
  {5, 0x72, k66, 0x00, 0x00FF00FF00FF0000ULL},
  {5, 0x73, k66, 0x00, 0xFFFF0000FFFF0000ULL},
  {5, 0xAE, kNone, 0x0C, 0},
  {6, 0x49, kNone, 0x01, 0x0000000000000001ULL},
  {6, 0x49, k66, 0x01, 0},
  {6, 0x49, kF2, 0x00, 0x0101010101010101ULL},
  {6, 0xF3, kNone, 0x0E, 0x00000000FFFFFF00ULL},
};
// clang-format on

bool is_legacy_prefix(uint8_t b) {
  switch (b) {
    case 0xF0:
    case 0xF2:
    case 0xF3:
    case 0x2E:
    case 0x36:
    case 0x3E:
    case 0x26:
    case 0x64:
    case 0x65:
    case 0x66:
    case 0x67: return true;
    default: return false;
  }
}

// Immediate size after ModRM for VEX/EVEX maps 0F, 0F38 and 0F3A.
size_t vex_imm_size(unsigned map, uint8_t op) {
  if (map == 3) return 1;
  if (map == 1) {
    if ((op >= 0x70 && op <= 0x73) || op == 0xC2 || (op >= 0xC4 && op <= 0xC6)) return 1;
  }
  return 0;
}

// LOCK is legal only on the read-modify-write forms with a memory destination; anything else
// raises #UD, so such bytes are not an instruction.
bool lock_allowed(unsigned map, uint8_t op, uint8_t modrm, bool has_modrm) {
  if (!has_modrm || (modrm >> 6) == 3) return false;
  const uint8_t reg = (modrm >> 3) & 7;
  if (map == 0) {
    if (op < 0x40 && (op & 7) < 2 && (op & 0x38) != 0x38) return true;  // add..xor r/m, r (not cmp)
    if (op == 0x80 || op == 0x81 || op == 0x83) return reg != 7;
    if (op == 0x86 || op == 0x87) return true;
    if (op == 0xF6 || op == 0xF7) return reg == 2 || reg == 3;
    if (op == 0xFE || op == 0xFF) return reg < 2;
    return false;
  }
  if (map == 1) {
    if (op == 0xAB || op == 0xB3 || op == 0xBB || op == 0xB0 || op == 0xB1 || op == 0xC0 ||
        op == 0xC1)
      return true;
    if (op == 0xBA) return reg >= 5;
    if (op == 0xC7) return reg == 1;
  }
  return false;
}

// Whether opcode `op` of `map` (0-3 legacy one-byte, 0F, 0F 38, 0F 3A; 5-7 VEX 0F, 0F 38,
// 0F 3A) defines the form that `modrm` selects, under the mandatory prefix (VEX: pp) in effect.
bool form_defined(unsigned map, uint8_t op, Mandatory prefix, uint8_t modrm) {
  static const char* const kForms[] = {nullptr,     kForms0F,      kForms0F38,   kForms0F3A,
                                       nullptr,     kFormsVex0F,   kFormsVex0F38, kFormsVex0F3A};
  char form = '?';
  if (map != 0) {
    const char* forms = kForms[map];
    // Five characters per opcode: its four forms and a space.
    form = forms[op * 5 + prefix];
  }
  const bool reg_form = (modrm >> 6) == 3;
  switch (form) {
    case '.': return false;
    case 'a': return true;
    case 'm': return !reg_form;
    case 'r': return reg_form;
    case 's': return !reg_form && (modrm & 7) == 4;  // VSIB or tile memory: SIB required
    default: break;
  }
  for (const Group& g : kGroups) {
    if (g.map != map || g.op != op || (g.prefix != kAny && g.prefix != prefix)) continue;
    return reg_form ? ((g.reg_modrm >> (modrm - 0xC0)) & 1) != 0
                    : ((g.mem_regs >> ((modrm >> 3) & 7)) & 1) != 0;
  }
  return map == 0;  // one-byte opcodes without a row define every form
}

// Whether a VEX opcode (map 1-3) allows the L, W, vvvv and R fields it was encoded with.
bool vex_fields_allowed(unsigned map, uint8_t op, Mandatory pp, uint8_t modrm, uint8_t l,
                        uint8_t w, uint8_t vvvv, bool r) {
  const char* rules = map == 1 ? kRulesVex0F : map == 2 ? kRulesVex0F38 : kRulesVex0F3A;
  const char letter = rules[op * 5 + pp];
  if (letter < 'a' || letter >= 'a' + static_cast<int>(sizeof(kVexRules) / sizeof(kVexRules[0])))
    return false;
  const VexRule& rule = kVexRules[letter - 'a'];
  const bool scalar_move_to_memory =
      map == 1 && (op == 0x10 || op == 0x11) && (pp == kF3 || pp == kF2) && (modrm >> 6) != 3;
  if (((rule.lw >> (l + 2 * w)) & 1) == 0) return false;
  if ((rule.vvvv == kNoVvvv || scalar_move_to_memory) && vvvv != 0xF) return false;
  if (rule.vvvv == kLowVvvv && (vvvv & 8) == 0) return false;  // encoded inverted
  return rule.r_allowed || !r;
}

struct Cursor {
  const uint8_t* code;
  size_t limit;  // min(available, 15)
  size_t pos = 0;
  bool take(uint8_t* b) {
    if (pos >= limit) return false;
    *b = code[pos++];
    return true;
  }
  bool skip(size_t n) {
    if (n > limit - pos) return false;
    pos += n;
    return true;
  }
  bool peek(uint8_t* b) const {
    if (pos >= limit) return false;
    *b = code[pos];
    return true;
  }
};

// What the prefix phase found. A REX prefix counts only right before the opcode.
struct Prefixes {
  bool opsize = false, addrsize = false, lock = false;
  uint8_t rep = 0;  // the last F2/F3
  uint8_t rex = 0;
  Mandatory mandatory() const {
    return rep == 0xF3 ? kF3 : rep == 0xF2 ? kF2 : opsize ? k66 : kNone;
  }
};

// What the opcode phase found: the map, the opcode byte and the operand bytes that follow it.
struct Opcode {
  uint8_t first = 0;  // first byte after the prefixes (0F, C4, C5, 62 or the one-byte opcode)
  uint8_t op = 0;
  unsigned map = 0;  // 0 one-byte, 1 0F, 2 0F38, 3 0F3A (also for VEX/EVEX), 5/6 EVEX
  bool vex_like = false;  // VEX or EVEX
  bool has_modrm = false;
  size_t imm_size = 0;
  Mandatory pp = kNone;  // VEX: the implied mandatory prefix
  uint8_t vex_l = 0, vex_w = 0, vvvv = 0xF;  // VEX fields (vvvv as encoded, 1111 = none)
  bool vex_r = false, vex_x = false, vex_b = false;  // VEX.R, X, B: reg, index, rm + 8
};

bool read_prefixes(Cursor* c, Prefixes* p, uint8_t* first) {
  for (;;) {
    uint8_t b = 0;
    if (!c->take(&b)) return false;
    if (is_legacy_prefix(b)) {
      p->rex = 0;
      if (b == 0x66)
        p->opsize = true;
      else if (b == 0x67)
        p->addrsize = true;
      else if (b == 0xF2 || b == 0xF3)
        p->rep = b;
      else if (b == 0xF0)
        p->lock = true;
      continue;
    }
    if ((b & 0xF0) == 0x40) {
      p->rex = b;
      continue;
    }
    *first = b;
    return true;
  }
}

// VEX (C4/C5) and EVEX (62): the payload, the map and the opcode byte.
bool read_vex(Cursor* c, const Prefixes& p, Opcode* o, Instruction* insn) {
  if (p.rex != 0 || p.opsize || p.rep || p.lock) return false;  // REX/66/F2/F3/F0 first: #UD
  o->vex_like = true;
  uint8_t v[2];
  if (o->first == 0xC4 || o->first == 0xC5) {
    // C5: R vvvv L pp (W = 0, map 0F). C4: R X B map, then W vvvv L pp. R inverted.
    if (!c->take(&v[0])) return false;
    o->map = o->first == 0xC5 ? 1 : v[0] & 0x1F;
    if (o->first == 0xC4 && (!c->take(&v[1]) || o->map < 1 || o->map > 3)) return false;
    const uint8_t last = o->first == 0xC5 ? v[0] : v[1];
    o->vex_r = (v[0] & 0x80) == 0;
    o->vex_x = o->first == 0xC4 && (v[0] & 0x40) == 0;
    o->vex_b = o->first == 0xC4 && (v[0] & 0x20) == 0;
    o->vex_w = o->first == 0xC5 ? 0 : last >> 7;
    o->vvvv = (last >> 3) & 0xF;
    o->vex_l = (last >> 2) & 1;
    o->pp = static_cast<Mandatory>(last & 3);
  } else {
    uint8_t e[3];
    for (auto& x : e)
      if (!c->take(&x)) return false;
    // P1 bit 2 clear would be Knights Corner's MVEX: #UD on every other CPU.
    if ((e[0] & 0x08) != 0 || (e[1] & 0x04) == 0) return false;
    o->map = e[0] & 0x07;
    if (o->map == 0 || o->map == 4 || o->map == 7) return false;
  }
  if (!c->take(&o->op)) return false;
  insn->opcode_offset = static_cast<uint8_t>(c->pos - 1);
  o->has_modrm = true;
  o->imm_size = o->map <= 3 ? vex_imm_size(o->map, o->op) : 0;
  if (o->first != 0x62 && o->map == 1 && o->op == 0x77) o->has_modrm = false;  // vzeroupper/all
  return true;
}

// Legacy opcodes: the escape bytes, the opcode and its immediate.
bool read_legacy_opcode(Cursor* c, const Prefixes& p, Opcode* o, Instruction* insn) {
  o->op = o->first;
  OpInfo info;
  if (o->first == 0x0F) {
    if (!c->take(&o->op)) return false;
    if (o->op == 0x38 || o->op == 0x3A) {
      o->map = o->op == 0x38 ? 2 : 3;
      if (!c->take(&o->op)) return false;
      info = o->map == 2 ? M : MB;
    } else {
      o->map = 1;
      info = kTwoByte[o->op];
      const Mandatory m = p.mandatory();
      if (o->op == 0x78 && (m == k66 || m == kF2)) {
        // SSE4a EXTRQ (66) / INSERTQ (F2): two imm8 after a register-form ModRM.
        info = M;
        o->imm_size = 2;
      }
    }
  } else {
    info = kOneByte[o->first];
    if (o->first == 0xC8)
      info = OpInfo{true, false, kIwb};
    else if (o->first >= 0xA0 && o->first <= 0xA3)
      info = OpInfo{true, false, kMoffs};
    else if (o->first >= 0xB8 && o->first <= 0xBF)
      info = OpInfo{true, false, kIv};
    else if (o->first == 0x8F)
      info = M;
  }
  insn->opcode_offset = static_cast<uint8_t>(c->pos - 1);
  if (!info.valid) return false;
  o->has_modrm = info.modrm;
  const bool rex_w = (p.rex & 0x08) != 0;
  switch (info.imm) {
    case kI0: break;
    case kIb: o->imm_size = 1; break;
    case kIw: o->imm_size = 2; break;
    case kIz: o->imm_size = p.opsize && !rex_w ? 2 : 4; break;  // REX.W overrides 66
    case kIv: o->imm_size = rex_w ? 8 : (p.opsize ? 2 : 4); break;
    case kIwb: o->imm_size = 3; break;
    case kMoffs: o->imm_size = p.addrsize ? 4 : 8; break;
    case kRel8: o->imm_size = 1; break;
    case kRelz: o->imm_size = 4; break;
  }
  // 0F map opcodes without ModRM still depend on the mandatory prefix (e.g. 0F 77 emms).
  if (o->map != 0 && !o->has_modrm && !form_defined(o->map, o->op, p.mandatory(), 0xC0))
    return false;
  return true;
}

// A legacy opcode's ModRM: whether it selects a defined form, and what it changes in the
// immediate (F6/F7 test) or the branch (C7 F8 xbegin).
bool check_legacy_modrm(const Prefixes& p, Opcode* o, uint8_t modrm, Instruction* insn) {
  if (!form_defined(o->map, o->op, p.mandatory(), modrm)) return false;
  const uint8_t reg = (modrm >> 3) & 7;
  const bool rex_w = (p.rex & 0x08) != 0, rex_r = (p.rex & 0x04) != 0;
  if (o->map == 1 && o->op >= 0x20 && o->op <= 0x23 && rex_r) {
    // cr8 is the only control register above cr4; there are no debug registers above dr7.
    if (o->op == 0x21 || o->op == 0x23 || reg != 0) return false;
  }
  const Mandatory m = p.mandatory();
  const bool reg_form = (modrm >> 6) == 3;
  const bool hint_nop = reg_form && (m == kNone || (m == kF3 && o->op == 0x1B));
  if (o->map == 1 && (o->op == 0x1A || o->op == 0x1B) && !hint_nop) {
    // MPX: bnd0-bnd3 only; bndldx/bndstx (no prefix) and bndmk (F3 0F 1B) take no [rip].
    const bool rip = (modrm & 0xC7) == 0x05;
    if (rex_r || (m == k66 && reg_form && (p.rex & 0x01) != 0)) return false;
    if (rip && (m == kNone || (m == kF3 && o->op == 0x1B))) return false;
  }
  if (o->map != 0) return true;
  if ((o->op == 0xF6 || o->op == 0xF7) && reg < 2)
    o->imm_size = o->op == 0xF6 ? 1 : (p.opsize && !rex_w ? 2 : 4);
  if (o->op == 0xC7 && modrm == 0xF8) {  // XBEGIN rel32 (rel16 with 66, unless REX.W)
    o->imm_size = p.opsize && !rex_w ? 2 : 4;
    insn->branch = BranchKind::kXbegin;
  }
  return true;
}

// ModRM, SIB and displacement. mov cr/dr (0F 20-23) ignore mod: always a register operand.
bool read_modrm(Cursor* c, const Opcode& o, uint8_t* modrm, uint8_t* sib, Instruction* insn) {
  if (!c->take(modrm)) return false;
  const uint8_t mod = *modrm >> 6, rm = *modrm & 7;
  const bool force_reg = !o.vex_like && o.map == 1 && o.op >= 0x20 && o.op <= 0x23;
  if (mod == 3 || force_reg) return true;
  if (rm == 4) {
    if (!c->take(sib)) return false;
    if (mod == 0 && (*sib & 7) == 5) {
      insn->disp_offset = static_cast<uint8_t>(c->pos);
      return c->skip(4);
    }
  } else if (mod == 0 && rm == 5) {
    insn->rip_relative = true;
    insn->disp_offset = static_cast<uint8_t>(c->pos);
    return c->skip(4);
  }
  if (mod == 1 || mod == 2) {
    insn->disp_offset = static_cast<uint8_t>(c->pos);
    return c->skip(mod == 1 ? 1 : 4);
  }
  return true;
}

// VEX gathers (66 0F38 90-93) and AMX tile dot products (0F38 5C/5E) need their destination
// and sources in different registers: destination, index and mask; or the three tiles.
bool vex_registers_distinct(const Opcode& o, uint8_t modrm, uint8_t sib) {
  if (o.map != 2) return true;
  const unsigned reg = ((modrm >> 3) & 7) | (o.vex_r ? 8 : 0), v = (~o.vvvv) & 0xF;
  if (o.pp == k66 && o.op >= 0x90 && o.op <= 0x93) {
    const unsigned index = ((sib >> 3) & 7) | (o.vex_x ? 8 : 0);
    return reg != index && reg != v && index != v;
  }
  if (o.op == 0x5C || o.op == 0x5E) {  // tmm0-tmm7 only
    const unsigned rm = (modrm & 7) | (o.vex_b ? 8 : 0);
    return reg != rm && reg != v && rm != v && rm < 8;
  }
  return true;
}

// Relative branches and how the instruction ends the fall-through path.
void classify(const Opcode& o, uint8_t modrm, Instruction* insn) {
  if (o.vex_like) return;
  const uint8_t b = o.op;
  if (o.map == 0) {
    if (b >= 0x70 && b <= 0x7F)
      insn->branch = BranchKind::kJccRel8;
    else if (b == 0xE0 || b == 0xE1 || b == 0xE2)
      insn->branch = BranchKind::kLoop;
    else if (b == 0xE3)
      insn->branch = BranchKind::kJrcxz;
    else if (b == 0xE8)
      insn->branch = BranchKind::kCallRel32;
    else if (b == 0xE9)
      insn->branch = BranchKind::kJmpRel32;
    else if (b == 0xEB)
      insn->branch = BranchKind::kJmpRel8;

    const uint8_t reg = (modrm >> 3) & 7;
    if (b == 0xC2 || b == 0xC3 || b == 0xCA || b == 0xCB || b == 0xCF)
      insn->flow = FlowKind::kReturn;
    else if (b == 0xE9 || b == 0xEB || (b == 0xFF && (reg == 4 || reg == 5)))
      insn->flow = FlowKind::kJumpAlways;
    else if (b == 0xCC)
      insn->flow = FlowKind::kInt3;
  } else if (o.map == 1) {
    if (b >= 0x80 && b <= 0x8F) insn->branch = BranchKind::kJccRel32;
    if (b == 0x0B || b == 0xB9 || b == 0xFF) insn->flow = FlowKind::kUndefined;
  }
}

bool fail(Instruction* out) {
  *out = Instruction{};
  return false;
}

}  // namespace

bool decode(const uint8_t* code, size_t available, Instruction* out) {
  if (code == nullptr) return fail(out);
  Instruction insn;
  Cursor c{code, available < kMaxLength ? available : kMaxLength};

  Prefixes p;
  Opcode o;
  if (!read_prefixes(&c, &p, &o.first)) return fail(out);
  insn.operand_size_prefix = p.opsize;
  insn.address_size_prefix = p.addrsize;

  // 8F is pop r/m (legacy) unless the next byte's map field is 8 or more: AMD's XOP, refused.
  uint8_t next = 0;
  if (o.first == 0x8F && c.peek(&next) && (next & 0x1F) >= 8) return fail(out);
  const bool vex = o.first == 0xC4 || o.first == 0xC5 || o.first == 0x62;
  if (!(vex ? read_vex(&c, p, &o, &insn) : read_legacy_opcode(&c, p, &o, &insn)))
    return fail(out);

  uint8_t modrm = 0, sib = 0;
  if (o.has_modrm) {
    if (!c.peek(&modrm)) return fail(out);
    if (!o.vex_like && !check_legacy_modrm(p, &o, modrm, &insn)) return fail(out);
    if (!read_modrm(&c, o, &modrm, &sib, &insn)) return fail(out);
  }
  const uint8_t form = o.has_modrm ? modrm : 0xC0;  // no ModRM (vzeroupper): as a register form
  if (o.vex_like && o.first != 0x62 &&
      (!form_defined(o.map + 4, o.op, o.pp, form) ||
       !vex_fields_allowed(o.map, o.op, o.pp, form, o.vex_l, o.vex_w, o.vvvv, o.vex_r) ||
       !vex_registers_distinct(o, modrm, sib)))
    return fail(out);
  if (p.lock && !o.vex_like && !lock_allowed(o.map, o.op, modrm, o.has_modrm)) return fail(out);

  const size_t imm_offset = c.pos;
  if (!c.skip(o.imm_size)) return fail(out);

  classify(o, modrm, &insn);
  if (insn.branch != BranchKind::kNone) {
    insn.rel_offset = static_cast<uint8_t>(imm_offset);
    insn.rel_size = static_cast<uint8_t>(o.imm_size);
  }
  insn.length = static_cast<uint8_t>(c.pos);
  insn.valid = true;
  *out = insn;
  return true;
}

namespace {
int64_t read_signed(const uint8_t* p, size_t size) {
  switch (size) {
    case 1: return static_cast<int8_t>(p[0]);
    case 2: {
      int16_t v;
      std::memcpy(&v, p, 2);
      return v;
    }
    case 4: {
      int32_t v;
      std::memcpy(&v, p, 4);
      return v;
    }
    default: return 0;
  }
}
}  // namespace

uint64_t branch_target(const Instruction& insn, const uint8_t* code, uint64_t address) {
  const uint64_t next = address + insn.length;
  const uint64_t target =
      next + static_cast<uint64_t>(read_signed(code + insn.rel_offset, insn.rel_size));
  if (insn.rel_size == 2) return target & 0xFFFF;  // xbegin with 66
  return target;
}

uint64_t rip_relative_target(const Instruction& insn, const uint8_t* code, uint64_t address) {
  const uint64_t target =
      address + insn.length + static_cast<uint64_t>(read_signed(code + insn.disp_offset, 4));
  return insn.address_size_prefix ? (target & 0xFFFFFFFFu) : target;
}

}  // namespace hookengine
