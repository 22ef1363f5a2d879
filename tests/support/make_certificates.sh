#!/usr/bin/env bash
# usage: make_certificates.sh DIRECTORY
#
# Writes the certificates of the test servers, each NAME.pem with its key NAME.key:
#   ca           the authority that the next three are signed by
#   good         for localhost and 127.0.0.1
#   wrong-host   for elsewhere.example
#   expired      for localhost and 127.0.0.1, but only until 2001
#   self-signed  for localhost and 127.0.0.1, signed by nobody else
set -euo pipefail
mkdir -p "$1"
cd "$1"

here=DNS:localhost,IP:127.0.0.1
elsewhere=DNS:elsewhere.example

cat > openssl.cnf <<'CONFIGURATION'
[req]
distinguished_name = nothing
prompt = no
[nothing]
[ca]
default_ca = authority
[authority]
certificate = ca.pem
private_key = ca.key
database = issued.txt
new_certs_dir = .
rand_serial = yes
unique_subject = no
default_md = sha256
policy = any
[any]
commonName = supplied
[is_authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
CONFIGURATION

new_key() {
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key"
}

signed_by_itself() { # NAME SUBJECT EXTENSION...
  local name=$1 subject=$2
  shift 2
  new_key "$name"
  openssl req -config openssl.cnf -new -x509 -key "$name.key" -subj "/CN=$subject" -days 3650 \
    "$@" -out "$name.pem"
}

signed_by_authority() { # NAME ALTERNATIVE_NAMES FIRST_DAY LAST_DAY
  new_key "$1"
  openssl req -config openssl.cnf -new -key "$1.key" -subj "/CN=$1" -out "$1.csr"
  printf 'basicConstraints = CA:FALSE\nsubjectAltName = %s\n' "$2" > "$1.ext"
  openssl ca -config openssl.cnf -batch -notext -in "$1.csr" -extfile "$1.ext" \
    -startdate "$3" -enddate "$4" -out "$1.pem"
}

exec 3>&2 2> openssl.log # what openssl says is of interest only when it fails
trap 'test $? = 0 || cat openssl.log >&3' EXIT

: > issued.txt
signed_by_itself ca "Quillmere test authority" -extensions is_authority
signed_by_itself self-signed self-signed -addext "subjectAltName = $here"
signed_by_authority good "$here" 20200101000000Z 20991231000000Z
signed_by_authority wrong-host "$elsewhere" 20200101000000Z 20991231000000Z
signed_by_authority expired "$here" 20000101000000Z 20010101000000Z
