#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "arrivalClock.h"
#include "capture.h"
#include "captureFilter.h"
#include "capturedHeader.h"

namespace meterd {

namespace {

constexpr std::string_view kProbesName = "eth0";
constexpr int kSnapLength =
    65535;                    // also jumbo frames, and what a card put together; room is taken as it is used
constexpr int kBlockMs = 20;  // the kernel hands over what is there after this long at the latest

struct Closer {
    void operator()(pcap_t* handle) const {
        pcap_close(handle);
    }
};

std::string hint(int error) {
    if (error == PCAP_ERROR_PERM_DENIED || error == PCAP_ERROR_PROMISC_PERM_DENIED) {
        return "; needs CAP_NET_RAW";
    }
    return "";
}

class LiveCapture final : public Capture {
  public:
    explicit LiveCapture(const LiveOptions& options)
        : interface_(options.interface), share_(options.share), clock_(readClocks()) {
        char error[PCAP_ERRBUF_SIZE] = "";
        handle_.reset(pcap_create(interface_.c_str(), error));
        if (!handle_) {
            throw std::runtime_error(interface_ + ": " + error);
        }
        pcap_t* handle = handle_.get();
        pcap_set_snaplen(handle, kSnapLength);
        pcap_set_promisc(handle, 0);
        pcap_set_timeout(handle, kBlockMs);
        pcap_set_buffer_size(handle, static_cast<int>(options.ringMib * 1024 * 1024));
        pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);
        if (const int status = pcap_activate(handle); status < 0) {
            const std::string what = pcap_statustostr(status);
            const std::string more = pcap_geterr(handle);
            throw std::runtime_error(interface_ + ": " + what +
                                     (more.empty() || more == what ? "" : " (" + more + ")") + hint(status));
        }
        if (pcap_datalink(handle) != DLT_EN10MB) {
            throw std::runtime_error(interface_ + ": is no Ethernet interface");
        }
        if (pcap_setnonblock(handle, 1, error) != 0) {
            throw std::runtime_error(interface_ + ": " + error);
        }
        // What goes out is not looked at: a machine that sends what it receives has it once.
        pcap_setdirection(handle, PCAP_D_IN);
        setFilter();
        index_ = if_nametoindex(interface_.c_str());
        cardDropsBefore_ = readCardDrops();
        if (cardDropsBefore_) {
            cardDrops_ = 0;
        }
        carrierChanges_ = readCounter("carrier_changes").value_or(0);
    }

    int descriptor() const override {
        return pcap_get_selectable_fd(handle_.get());
    }

    std::size_t read(std::size_t limit, const DatagramSink& sink) override {
        clock_.look(readClocks());
        sink_ = &sink;
        const int count = pcap_dispatch(handle_.get(), static_cast<int>(limit), &LiveCapture::take,
                                        reinterpret_cast<u_char*>(this));
        if (count < 0) {
            throw std::runtime_error(interface_ + ": " + pcap_geterr(handle_.get()));
        }
        frames_ += static_cast<uint64_t>(count);
        return static_cast<std::size_t>(count);
    }

    CaptureCounts counts() override {
        pcap_stat now{};
        if (pcap_stats(handle_.get(), &now) == 0) {
            // libpcap's counters have 32 bits.
            kernelDrops_ += now.ps_drop - kernelBefore_;
            kernelBefore_ = now.ps_drop;
        }
        const std::optional<uint64_t> card = readCardDrops();
        if (card) {
            if (!cardDrops_) {
                cardDrops_ = 0;
            } else if (cardDropsBefore_ && *card > *cardDropsBefore_) {
                *cardDrops_ += *card - *cardDropsBefore_;
            }
            cardDropsBefore_ = card;
        }
        return {frames_, kernelDrops_, cardDrops_, cut_};
    }

    std::string interface() const override {
        return interface_;
    }

    uint64_t socket() const override {
        struct stat status {};
        return fstat(pcap_fileno(handle_.get()), &status) == 0 ? status.st_ino : 0;
    }

    // libpcap waits in silence while an interface is down.
    std::string trouble() override {
        if (if_nametoindex(interface_.c_str()) != index_) {
            throw std::runtime_error(interface_ + ": the interface is gone, or made anew");
        }
        ifreq request{};
        interface_.copy(request.ifr_name, IFNAMSIZ - 1);
        const Descriptor control(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (control.value < 0 || ioctl(control.value, SIOCGIFFLAGS, &request) != 0) {
            return "";
        }
        if ((request.ifr_flags & IFF_UP) == 0) {
            return interface_ + " is down: ip link set " + interface_ + " up";
        }
        const uint64_t changes = readCounter("carrier_changes").value_or(0);
        const bool changed = std::exchange(carrierChanges_, changes) != changes;
        if ((request.ifr_flags & IFF_RUNNING) == 0) {
            return interface_ + " has no carrier";
        }
        // Also for less than the second between two looks.
        return changed ? interface_ + " was without carrier a moment ago" : "";
    }

  private:
    struct Descriptor {
        explicit Descriptor(int opened) : value(opened) {}
        ~Descriptor() {
            close(value);
        }
        Descriptor(const Descriptor&) = delete;
        int value;
    };

    static void take(u_char* self, const pcap_pkthdr* header, const u_char* bytes) {
        static_cast<LiveCapture*>(static_cast<void*>(self))->take(readHeader(*header), bytes);
    }

    void take(const CapturedHeader& header, const u_char* bytes) {
        if (header.cut()) {
            ++cut_;
            return;
        }
        if (meter::readFrame(meter::LinkLayer::kEthernet, {bytes, header.captured}, datagram_) ==
                meter::FrameContent::kOther ||
            !share_.takes(datagram_.destination)) {
            return;
        }
        datagram_.wall = header.seconds * kNsPerSecond + header.fraction;
        datagram_.arrival = clock_.arrival(datagram_.wall);
        (*sink_)(datagram_);
    }

    void setFilter() {
        static_assert(sizeof(bpf_insn) == sizeof(sock_filter));
        const std::vector<sock_filter> instructions = multicastFilter(share_);
        std::vector<bpf_insn> copy(instructions.size());
        std::memcpy(copy.data(), instructions.data(), instructions.size() * sizeof(sock_filter));
        bpf_program program{static_cast<u_int>(copy.size()), copy.data()};
        if (pcap_setfilter(handle_.get(), &program) != 0) {
            throw std::runtime_error(interface_ + ": " + pcap_geterr(handle_.get()));
        }
    }

    std::optional<uint64_t> readCounter(const std::string& name) const {
        std::ifstream file("/sys/class/net/" + interface_ + "/" + name);
        uint64_t value = 0;
        return file >> value ? std::optional(value) : std::nullopt;
    }

    // rx_dropped also counts frames of protocols that nobody wants, but not while somebody captures all;
    // those in VLANs that this machine has no interface for it counts all the same. Some drivers count a
    // frame as missed and in rx_fifo_errors too.
    std::optional<uint64_t> readCardDrops() const {
        const auto dropped = readCounter("statistics/rx_dropped");
        const auto missed = readCounter("statistics/rx_missed_errors");
        const auto overruns = readCounter("statistics/rx_fifo_errors");
        if (!dropped && !missed && !overruns) {
            return std::nullopt;
        }
        return dropped.value_or(0) + std::max(missed.value_or(0), overruns.value_or(0));
    }

    std::string interface_;
    Share share_;
    unsigned index_ = 0;  // of the interface
    ArrivalClock clock_;
    std::unique_ptr<pcap_t, Closer> handle_;
    const DatagramSink* sink_ = nullptr;  // of the call of read() that runs
    meter::Datagram datagram_;
    uint64_t frames_ = 0;
    uint64_t kernelDrops_ = 0;
    uint32_t kernelBefore_ = 0;
    std::optional<uint64_t> cardDrops_;  // none: they cannot be read
    std::optional<uint64_t> cardDropsBefore_;
    uint64_t cut_ = 0;
    uint64_t carrierChanges_ = 0;
};

}  // namespace

std::unique_ptr<Capture> openLive(const LiveOptions& options) {
    return std::make_unique<LiveCapture>(options);
}

std::string defaultInterface() {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_if_t* head = nullptr;
    if (pcap_findalldevs(&head, error) != 0) {
        return "";
    }
    std::string found;
    for (const pcap_if_t* device = head; device != nullptr && found.empty(); device = device->next) {
        if (std::string_view(device->name).find(kProbesName) != std::string_view::npos) {
            found = device->name;
        }
    }
    pcap_freealldevs(head);
    return found;
}

}  // namespace meterd
