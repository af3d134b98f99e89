#!/usr/bin/env bash
# Makes the bundled sample capture and the test captures derived from it.
#
# Two network namespaces joined by a veth pair, with no route out: "host"
# (10.77.0.1, fd77::1) captures with dumpcap and runs the servers (HTTP on 80,
# DNS on 53, TLS 1.2 with RSA key exchange on 443); "peer" sends from two
# addresses: 10.77.0.3 (and fd77::3) the benign traffic (HTTP, DNS, a TLS
# session carrying an HTTP exchange), 10.77.0.2 (and fd77::2) the probes
# (Xmas, NULL, SYN-FIN, OS detection, a SYN scan of ports 1-400, IPv6 echo and
# SYN probes). The host also sends a datagram to a closed port of the peer and
# pings it, so that the capture holds a related ICMP error and echo replies.
#
# Writes, relative to the checkout:
#   examples/capture/sample.pcapng    the capture
#   examples/capture/server-key.pem   the throwaway RSA key of the TLS server
#   examples/capture/security.xml     SSL credential (the key as a base64 blob)
#                                     and host configuration for 10.77.0.1
#   tests/data/*.pcap*                small captures for the tests, some of
#                                     them cut short or damaged on purpose
# Everything it starts is stopped by pid and both namespaces are deleted, also
# when it fails. Needs root, iproute2, dumpcap, editcap, nmap, openssl, curl,
# nc (OpenBSD).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
examples="$root/examples/capture"
testdata="$root/tests/data"
work=$(mktemp -d /tmp/vexil-sample-XXXXXX)
host_ns="vxs-host-$$"
peer_ns="vxs-peer-$$"
pids=()

cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in "${pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    ip netns del "$host_ns" 2>/dev/null || true
    ip netns del "$peer_ns" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

in_host() { ip netns exec "$host_ns" "$@"; }
in_peer() { ip netns exec "$peer_ns" "$@"; }
# The same with a time limit in seconds, so that no step can hang the script.
host_for() { timeout --kill-after=2 "$1" ip netns exec "$host_ns" "${@:2}"; }
peer_for() { timeout --kill-after=2 "$1" ip netns exec "$peer_ns" "${@:2}"; }

# The namespaces and their link.
ip netns add "$host_ns"
ip netns add "$peer_ns"
ip link add vxs-h netns "$host_ns" type veth peer name vxs-p netns "$peer_ns"
in_host ip link set lo up
in_peer ip link set lo up
in_host ip addr add 10.77.0.1/24 dev vxs-h
in_host ip addr add fd77::1/64 dev vxs-h nodad
in_peer ip addr add 10.77.0.2/24 dev vxs-p
in_peer ip addr add 10.77.0.3/24 dev vxs-p
in_peer ip addr add fd77::2/64 dev vxs-p nodad
in_peer ip addr add fd77::3/64 dev vxs-p nodad
in_host ip link set vxs-h up
in_peer ip link set vxs-p up

# The TLS server's throwaway key and certificate.
openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj /CN=vexil-sample \
    -addext keyUsage=digitalSignature,keyEncipherment \
    -keyout "$work/server-key.pem" -out "$work/server-cert.pem" 2>/dev/null

# The capture, on the host's side of the link.
in_host dumpcap -q -i vxs-h -w "$work/sample.pcapng" 2>"$work/dumpcap.log" &
pids+=($!)
for _ in $(seq 50); do
    grep -q "File:" "$work/dumpcap.log" 2>/dev/null && break
    sleep 0.1
done
sleep 0.5

# The servers.
printf 'HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 6\r\n\r\nhello\n' \
    >"$work/http-response"
host_for 60 nc -N -l 10.77.0.1 80 <"$work/http-response" >/dev/null &
pids+=($!)
# A DNS answer to the query below (id 0x1234, example.test A 10.77.0.1).
printf '\x12\x34\x81\x80\x00\x01\x00\x01\x00\x00\x00\x00\x07example\x04test\x00\x00\x01\x00\x01\xc0\x0c\x00\x01\x00\x01\x00\x00\x00\x3c\x00\x04\x0a\x4d\x00\x01' \
    >"$work/dns-response"
host_for 60 nc -u -l 10.77.0.1 53 <"$work/dns-response" >/dev/null &
pids+=($!)
host_for 120 openssl s_server -quiet -accept 443 -cert "$work/server-cert.pem" \
    -key "$work/server-key.pem" -cipher AES128-SHA -tls1_2 -www >/dev/null 2>&1 &
pids+=($!)
sleep 1

# Benign traffic from the second address.
peer_for 10 curl -s --interface 10.77.0.3 http://10.77.0.1/ >/dev/null
printf '\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00\x07example\x04test\x00\x00\x01\x00\x01' |
    peer_for 5 nc -u -w 1 -s 10.77.0.3 10.77.0.1 53 >/dev/null || true
printf 'GET / HTTP/1.0\r\n\r\n' |
    peer_for 10 openssl s_client -quiet -connect 10.77.0.1:443 -cipher AES128-SHA \
        -tls1_2 -bind 10.77.0.3:0 >/dev/null 2>&1 || true

# The host's own traffic: a datagram to a closed port (answered by a related
# port unreachable) and an echo request (answered by an echo reply).
echo probe | host_for 5 nc -u -w 1 10.77.0.2 9 >/dev/null 2>&1 || true
host_for 20 nmap -n -sn -PE --send-ip 10.77.0.2 >/dev/null

# Probes from the first address.
scan() { peer_for 120 nmap -n -Pn -T4 --max-retries 1 -S "$1" -e vxs-p "${@:2}" >/dev/null; }
scan 10.77.0.2 -sX -p 22,80,443 10.77.0.1
scan 10.77.0.2 -sN -p 22,80,443 10.77.0.1
scan 10.77.0.2 -sS --scanflags SYNFIN -p 22,80,443 10.77.0.1
scan 10.77.0.2 -O --max-os-tries 1 10.77.0.1 || true
scan 10.77.0.2 -sS -p 1-400 10.77.0.1
peer_for 20 nmap -6 -n -sn -PE --send-ip -S fd77::2 -e vxs-p fd77::1 >/dev/null
scan fd77::2 -6 -sS -p 22,80,443 fd77::1
sleep 1

kill "${pids[0]}"
wait "${pids[0]}" 2>/dev/null || true

# The committed files.
mkdir -p "$examples" "$testdata"
cp "$work/sample.pcapng" "$examples/sample.pcapng"
cp "$work/server-key.pem" "$examples/server-key.pem"
chmod 644 "$examples/sample.pcapng" "$examples/server-key.pem"
blob=$(base64 -w0 "$work/server-key.pem")
cat >"$examples/security.xml" <<EOF
<SecurityConfiguration>
  <SSLCredentials>
    <SSLCredential id="1" name="sample TLS server" credentialType="PEM" details="throwaway key of examples/capture/sample.pcapng" credential="$blob"/>
  </SSLCredentials>
  <SSLHostConfigurations>
    <SSLHostConfiguration id="7" name="sample TLS server" allInterfaces="false" sslCredentialId="1" specificIP="10.77.0.1"/>
  </SSLHostConfigurations>
</SecurityConfiguration>
EOF

# Test captures: the first packets as classic pcap, the same cut to 30 bytes a
# packet (headers short), the sample cut off in the middle of a block, and a
# file that is no capture at all.
editcap -F pcap -r "$work/sample.pcapng" "$testdata/first-packets.pcap" 1-40
editcap -F pcap -s 30 "$testdata/first-packets.pcap" "$testdata/snapped.pcap"
head -c 3000 "$work/sample.pcapng" >"$testdata/cut-short.pcapng"
printf 'this is no capture file\n' >"$testdata/not-a-capture.pcap"
echo "make-sample-capture: $(ls -l "$examples/sample.pcapng" | awk '{print $5}') bytes in examples/capture/sample.pcapng"
