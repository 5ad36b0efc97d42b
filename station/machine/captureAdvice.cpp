#include "machine/captureAdvice.h"

namespace station {

CaptureAdvice captureAdvice(std::span<const NetworkInterface> interfaces) {
    const NetworkInterface* capture = findCaptureInterface(interfaces);
    if (capture == nullptr) {
        const std::string others =
            namesOf(interfaces, [](const NetworkInterface& one) { return !one.loopback; });
        return {
            "no interface whose name contains " + std::string(kCaptureName) + ": " +
                (others.empty() ? "there is none but the loopback" : others),
            "give the card that name, by its address (ip link shows it): printf "
            "'[Match]\\nMACAddress=ADDRESS\\n[Link]\\nName=eth0\\n' >/etc/systemd/network/10-eth0.link && "
            "update-initramfs -u, the new name in the network's configuration, and a reboot; or boot with "
            "net.ifnames=0"};
    }
    if (!capture->up) {
        return {"the interface " + capture->name + " is down",
                "ip link set " + capture->name + " up, and for good in the network's configuration"};
    }
    return {};
}

}  // namespace station
