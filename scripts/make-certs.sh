#!/usr/bin/env bash
# Makes the certificates of a test fleet with openssl: a CA, the station's certificate, the
# broker's (for 127.0.0.1 and localhost), one per panel, and for tests an expired station and
# panel certificate and a foreign CA with a station and a panel of its own. Keys are EC P-256.
#   scripts/make-certs.sh OUTDIR [PANEL_ADDRESS...]   creates what is missing (the CA is kept)
#   scripts/make-certs.sh --revoke OUTDIR NAME        revokes OUTDIR/NAME.crt (e.g. panel-1001)
# A panel's certificate names its protocol address as the subject's common name (CN=1001), the
# station's is CN=nkstation: the broker takes the CN as the user name of its access list, and
# nkctl checks that a device's certificate names the address it asked for. OUTDIR/crl.pem is
# the CA's revocation list (mosquitto crlfile, --tls-crl of the tools), made anew on every run.
set -euo pipefail

usage() { echo "usage: $0 OUTDIR [PANEL_ADDRESS...] | --revoke OUTDIR NAME" >&2; exit 2; }
command -v openssl >/dev/null || { echo "make-certs: openssl is not installed (run scripts/install-deps.sh)" >&2; exit 1; }

revoke=
if [ "${1:-}" = "--revoke" ]; then
  [ $# -eq 3 ] || usage
  revoke=$3
  shift
fi
[ $# -ge 1 ] || usage
mkdir -p "$1"
out=$(cd "$1" && pwd)
shift
[ -n "$revoke" ] && shift
for address in "$@"; do
  [[ $address =~ ^(0|[1-9][0-9]{0,9})$ ]] && [ "$address" -le 4294967293 ] ||
    { echo "make-certs: panel address '$address' is not a decimal address" >&2; exit 2; }
done
umask 077

# One CA database per authority (index, serial numbers, revocations), for `openssl ca`.
write_config() { # DIR
  local dir=$1
  mkdir -p "$dir/db/new"
  [ -f "$dir/db/index.txt" ] || : >"$dir/db/index.txt"
  [ -f "$dir/db/serial" ] || echo 1000 >"$dir/db/serial"
  [ -f "$dir/db/crlnumber" ] || echo 1000 >"$dir/db/crlnumber"
  cat >"$dir/db/ca.cnf" <<CNF
[ ca ]
default_ca = fleet
[ fleet ]
database = $dir/db/index.txt
new_certs_dir = $dir/db/new
serial = $dir/db/serial
crlnumber = $dir/db/crlnumber
certificate = $dir/ca.crt
private_key = $dir/ca.key
default_md = sha256
default_days = 825
default_crl_days = 30
policy = any_name
unique_subject = no
[ any_name ]
commonName = supplied
[ station ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = clientAuth
[ panel ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth, clientAuth
[ broker ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = IP:127.0.0.1, DNS:localhost
CNF
}

make_ca() { # DIR NAME
  local dir=$1
  [ -f "$dir/ca.crt" ] && return
  mkdir -p "$dir"
  openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -sha256 -days 3650 \
    -subj "/CN=$2" -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -keyout "$dir/ca.key" -out "$dir/ca.crt" 2>/dev/null
}

# issue CA_DIR FILE_STEM CN PROFILE [openssl ca options...]: FILE_STEM.crt and FILE_STEM.key
issue() {
  local ca=$1 stem=$2 cn=$3 profile=$4
  shift 4
  [ -f "$stem.crt" ] && return
  openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj "/CN=$cn" \
    -keyout "$stem.key" -out "$stem.csr" 2>/dev/null
  openssl ca -batch -notext -config "$ca/db/ca.cnf" -extensions "$profile" -in "$stem.csr" -out "$stem.crt" "$@" \
    2>/dev/null
  rm -f "$stem.csr"
}

make_crl() { # CA_DIR
  openssl ca -gencrl -config "$1/db/ca.cnf" -out "$1/crl.pem" 2>/dev/null
}

make_ca "$out" "nk test fleet CA"
write_config "$out"

if [ -n "$revoke" ]; then
  [ -f "$out/$revoke.crt" ] || { echo "make-certs: no certificate $out/$revoke.crt" >&2; exit 1; }
  openssl ca -config "$out/db/ca.cnf" -revoke "$out/$revoke.crt" 2>/dev/null
  make_crl "$out"
  echo "make-certs: revoked $revoke; $out/crl.pem lists it"
  exit 0
fi

issue "$out" "$out/station" nkstation station
issue "$out" "$out/broker" broker broker
for address in "$@"; do
  issue "$out" "$out/panel-$address" "$address" panel
done
# Valid for one day in 2020: refused by every peer that checks the dates.
first=${1:-1}
issue "$out" "$out/expired-station" nkstation station -startdate 20200101000000Z -enddate 20200102000000Z
issue "$out" "$out/expired-panel" "$first" panel -startdate 20200101000000Z -enddate 20200102000000Z
make_crl "$out"

# Another CA with certificates that carry the same names: refused because of who signed them.
make_ca "$out/foreign" "foreign CA"
write_config "$out/foreign"
issue "$out/foreign" "$out/foreign-station" nkstation station
issue "$out/foreign" "$out/foreign-panel" "$first" panel
