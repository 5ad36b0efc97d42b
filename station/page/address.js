// What people give for a group: the group alone, with its port, or an address as players and playlists have
// it.

const kAddress =
    /^(?:(?:udp|rtp):(?:\/\/)?(?:([\d.]*)@)?|https?:\/\/[^/\s]+\/(?:udp|rtp)\/)?(\d{1,3}(?:\.\d{1,3}){3})(?::(\d{1,5}))?(?:[/?].*)?$/i;
const kFirst = 224;
const kLast = 239;

function isIpv4(text) {
  return /^\d{1,3}(\.\d{1,3}){3}$/.test(text) && text.split('.').every((part) => Number(part) <= 255);
}

// {group, port, source} of "239.1.1.1", "239.1.1.1:5000", "udp://@239.1.1.1:5000",
// "rtp://10.0.0.7@239.1.1.1:5000" or "http://proxy:4022/udp/239.1.1.1:5000"; port and source are null where
// none is given. Throws an Error with a sentence for whoever typed it.
export function parseAddress(text) {
  const typed = text.trim();
  if (!typed) throw new Error('A group is needed, such as 239.1.1.1.');
  const [, source, group, port] = kAddress.exec(typed) ?? [];
  const first = Number(group?.split('.')[0]);
  if (!group || !isIpv4(group) || first < kFirst || first > kLast)
    throw new Error(
        `"${typed.slice(0, 60)}" names no multicast group; they are 224.0.0.0 to 239.255.255.255.`);
  if (port && Number(port) > 65535) throw new Error(`Port ${port} is above 65535.`);
  if (source && !isIpv4(source)) throw new Error(`"${source}" is no address of a source.`);
  const plain = group.split('.').map(Number).join('.');
  return {group: plain, port: port ? Number(port) : null, source: source || null};
}
