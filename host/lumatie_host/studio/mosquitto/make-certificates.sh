#!/bin/sh
# make-certificates.sh FOLDER HOST: a certificate authority of one's own, and the broker's certificate
# for the name or address under which stations reach it. ca.crt goes to every station.
set -eu
[ $# -eq 2 ] || { echo "usage: make-certificates.sh FOLDER HOST" >&2; exit 2; }
mkdir -p "$1"
cd "$1"
umask 077
case $2 in
    *[!0-9.]*) name=DNS:$2 ;;
    *) name=IP:$2 ;;
esac
openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj "/CN=Lumatie studio" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign" \
    -keyout ca.key -out ca.crt
openssl req -newkey rsa:2048 -nodes -subj "/CN=$2" -keyout broker.key -out broker.csr
printf 'subjectAltName=%s\nextendedKeyUsage=serverAuth\n' "$name" >broker.ext
openssl x509 -req -in broker.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 825 \
    -extfile broker.ext -out broker.crt
chmod 644 ca.crt broker.crt
rm broker.csr broker.ext
