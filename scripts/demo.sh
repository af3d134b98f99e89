#!/usr/bin/env bash
# The demo: vexil-agent replays the bundled capture with syslog going to a
# local rsyslog and a TLS key log, then shows the summary, a few log lines,
# the syslog messages, the key log and the HTTPS request decrypted by tshark
# with the key log alone. Everything it makes lives in a temporary folder.
set -euo pipefail

build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
# The capture, its keys, its host addresses and allowed services.
# shellcheck source=examples/sample-capture.env
source "$here/examples/sample-capture.env"
capture=$here/$VEXIL_CAPTURE
keys=$here/$VEXIL_CAPTURE_KEYS

work=$(mktemp -d /tmp/vexil-demo-XXXXXX)
rsyslog_pid=
cleanup() {
    [[ -n $rsyslog_pid ]] && kill "$rsyslog_pid" 2>/dev/null && wait "$rsyslog_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

section() { printf '\n== %s\n' "$1"; }

syslog_args=()
if command -v rsyslogd >/dev/null; then
    cat >"$work/rsyslog.conf" <<EOF
global(workDirectory="$work" maxMessageSize="128k")
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="$work/log.sock" UseSpecialParser="off" IgnoreTimestamp="off")
template(name="demo" type="string" string="%timereported:::date-rfc3339% %hostname% %app-name% %msg%\n")
*.* action(type="omfile" file="$work/syslog.log" template="demo")
EOF
    rsyslogd -n -f "$work/rsyslog.conf" -i "$work/rsyslog.pid" &
    rsyslog_pid=$!
    for _ in $(seq 50); do [[ -S $work/log.sock ]] && break; sleep 0.1; done
    syslog_args=(--syslog "unix:$work/log.sock")
fi

section "vexil-agent --pcap ${capture#"$here"/} --host $VEXIL_CAPTURE_HOST --services $VEXIL_CAPTURE_SERVICES"
(cd "$here" && "$build/vexil-agent" --pcap "$capture" --host "$VEXIL_CAPTURE_HOST" \
    --services "$VEXIL_CAPTURE_SERVICES" --keys "$keys" --ssl-keylog "$work/keys.log" \
    --logs "$work/logs" "${syslog_args[@]}" 2>"$work/agent.err")

section "first log lines (of $(wc -l <"$work/logs/norv_mpnp"))"
head -n 5 "$work/logs/norv_mpnp" | cut -c 1-200

if [[ -n $rsyslog_pid ]]; then
    sleep 0.3
    section "syslog messages received by rsyslog (first of $(wc -l <"$work/syslog.log"))"
    head -n 5 "$work/syslog.log" | cut -c 1-200
fi

section "TLS key log"
cat "$work/keys.log"

if command -v tshark >/dev/null; then
    section "the HTTPS request, decrypted by tshark with the key log alone"
    tshark -r "$capture" -o "tls.keylog_file:$work/keys.log" -Y 'http && tcp.port == 443' 2>/dev/null
else
    section "tshark is not installed: the decryption is not shown"
fi

section "SSL credential kinds"
cat <<'TEXT'
The capture's key is a PEM blob (kind PEM); P12 takes a PKCS#12 file or blob. A key that
never leaves a PKCS#11 token (HSM, smart card, SoftHSM) is kind CAPI: the token's label and the
SHA-1 thumbprint of its certificate, with the token's user PIN as the passphrase:
  <SSLCredential id="3" name="web key" credentialType="CAPI"
                 identifier="web-hsm;3f2a9c0d41b7e6a58c2f1d0e9b8a7c6d5e4f3a2b" passphrase="1234"/>
TEXT
