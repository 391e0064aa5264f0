#include "tests/unit/probes/bpf_machine.h"

#include <stdexcept>

namespace zol_test {

namespace {

class Machine {
 public:
  Machine(const Bytes& packet, unsigned type) : packet_(packet), type_(type) {}

  FilterRun run(const sock_filter* program, std::size_t count) {
    for (std::size_t at = 0; at < count && !ended_; ++at)
      at += step(program[at]);
    if (!ended_)
      throw std::logic_error("the filter has no end");
    return run_;
  }

 private:
  // How many instructions to leap over.
  std::size_t step(const sock_filter& instruction) {
    switch (BPF_CLASS(instruction.code)) {
      case BPF_LD:
        load(instruction);
        return 0;
      case BPF_LDX:
        load_header_length(instruction);
        return 0;
      case BPF_ALU:
        if (instruction.code != (BPF_ALU | BPF_AND | BPF_K))
          throw std::logic_error("arithmetic that the machine doesn't know");
        a_ &= instruction.k;
        return 0;
      case BPF_JMP:
        return test(instruction) ? instruction.jt : instruction.jf;
      case BPF_RET:
        end(instruction.k);
        return 0;
      default:
        throw std::logic_error("an instruction that the machine doesn't know");
    }
  }

  bool test(const sock_filter& instruction) const {
    switch (instruction.code) {
      case BPF_JMP | BPF_JEQ | BPF_K:
        return a_ == instruction.k;
      case BPF_JMP | BPF_JSET | BPF_K:
        return (a_ & instruction.k) != 0;
      case BPF_JMP | BPF_JGE | BPF_K:
        return a_ >= instruction.k;
      case BPF_JMP | BPF_JGT | BPF_K:
        return a_ > instruction.k;
      default:
        throw std::logic_error("a test that the machine doesn't know");
    }
  }

  void load(const sock_filter& instruction) {
    if (instruction.code == (BPF_LD | BPF_W | BPF_ABS) &&
        instruction.k == static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)) {
      run_.loaded.push_back(packet_type);
      a_ = type_;
      return;
    }
    const bool relative = BPF_MODE(instruction.code) == BPF_IND;
    if (!relative && BPF_MODE(instruction.code) != BPF_ABS)
      throw std::logic_error("a load that the machine doesn't know");
    a_ = fetch(std::uint64_t{instruction.k} + (relative ? x_ : 0), width_of(instruction));
  }

  void load_header_length(const sock_filter& instruction) {
    if (instruction.code != (BPF_LDX | BPF_B | BPF_MSH))
      throw std::logic_error("a load of x that the machine doesn't know");
    x_ = (fetch(instruction.k, 1) & 0xf) * 4;
  }

  static std::size_t width_of(const sock_filter& instruction) {
    switch (BPF_SIZE(instruction.code)) {
      case BPF_B:
        return 1;
      case BPF_H:
        return 2;
      default:
        return 4;
    }
  }

  std::uint32_t fetch(std::uint64_t offset, std::size_t width) {
    run_.loaded.push_back(static_cast<std::int64_t>(offset));
    if (offset + width > packet_.size()) {
      end(0);
      return 0;
    }
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
      value = value << 8 | packet_[offset + i];
    return value;
  }

  void end(std::uint32_t accepted) {
    ended_ = true;
    run_.accepted = accepted;
  }

  const Bytes& packet_;
  std::uint32_t type_;
  std::uint32_t a_ = 0;
  std::uint32_t x_ = 0;
  bool ended_ = false;
  FilterRun run_;
};

}  // namespace

FilterRun run_filter(const sock_filter* program, std::size_t count, const Bytes& packet, unsigned type) {
  return Machine(packet, type).run(program, count);
}

}  // namespace zol_test
