#!/bin/sh
# Makes what the bridges of some machines need to let in each other and nobody else (tarvo-bridge --security FOLDER).
#
#   make-certificates.sh FOLDER MACHINE...
#
# FOLDER/authority holds the keys that vouch for machines; keep it off them, and safe. FOLDER/MACHINE is what goes to
# that machine, readable by its bridge only. Run again with another MACHINE, the authority that is there vouches for that
# one too.
set -eu

if [ $# -lt 2 ]; then
    echo "Usage: make-certificates.sh FOLDER MACHINE..." >&2
    exit 2
fi
folder=$1
shift
authority=$folder/authority
days=3650
umask 077
mkdir -p "$authority"

if [ ! -e "$authority/key.pem" ]; then
    openssl ecparam -name prime256v1 -genkey -noout -out "$authority/key.pem"
    openssl req -x509 -new -sha256 -days $days -key "$authority/key.pem" -subj "/O=tarvo/CN=authority" \
        -out "$authority/cert.pem"
fi

sign() {
    openssl smime -sign -in "$1" -text -out "$2" -signer "$authority/cert.pem" -inkey "$authority/key.pem"
}

cat >"$authority/governance.xml" <<'TEXT'
<?xml version="1.0" encoding="UTF-8"?>
<dds xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"
     xsi:noNamespaceSchemaLocation="http://www.omg.org/spec/DDS-Security/20170801/omg_shared_ca_governance.xsd">
  <domain_access_rules>
    <domain_rule>
      <domains><id_range><min>0</min><max>230</max></id_range></domains>
      <allow_unauthenticated_participants>false</allow_unauthenticated_participants>
      <enable_join_access_control>true</enable_join_access_control>
      <discovery_protection_kind>NONE</discovery_protection_kind>
      <liveliness_protection_kind>NONE</liveliness_protection_kind>
      <rtps_protection_kind>ENCRYPT</rtps_protection_kind>
      <topic_access_rules>
        <topic_rule>
          <topic_expression>*</topic_expression>
          <enable_discovery_protection>false</enable_discovery_protection>
          <enable_liveliness_protection>false</enable_liveliness_protection>
          <enable_read_access_control>true</enable_read_access_control>
          <enable_write_access_control>true</enable_write_access_control>
          <metadata_protection_kind>NONE</metadata_protection_kind>
          <data_protection_kind>NONE</data_protection_kind>
        </topic_rule>
      </topic_access_rules>
    </domain_rule>
  </domain_access_rules>
</dds>
TEXT

for machine in "$@"; do
    case $machine in
    '' | authority | .* | *[!A-Za-z0-9._-]*)
        echo "make-certificates: '$machine' is no name for a machine" >&2
        exit 2
        ;;
    esac
done
for machine in "$@"; do
    own=$folder/$machine
    mkdir -p "$own"
    openssl ecparam -name prime256v1 -genkey -noout -out "$own/key.pem"
    openssl req -new -sha256 -key "$own/key.pem" -subj "/O=tarvo/CN=$machine" -out "$authority/$machine.csr"
    openssl x509 -req -sha256 -days $days -in "$authority/$machine.csr" -CA "$authority/cert.pem" \
        -CAkey "$authority/key.pem" -CAcreateserial -out "$own/cert.pem" 2>/dev/null
    # The DDS compares it with this text.
    subject=$(openssl x509 -in "$own/cert.pem" -noout -subject -nameopt RFC2253 | sed 's/^subject=//')
    cat >"$authority/$machine.xml" <<TEXT
<?xml version="1.0" encoding="UTF-8"?>
<dds xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"
     xsi:noNamespaceSchemaLocation="http://www.omg.org/spec/DDS-Security/20170801/omg_shared_ca_permissions.xsd">
  <permissions>
    <grant name="$machine">
      <subject_name>$subject</subject_name>
      <validity>
        <not_before>$(date -u -d yesterday +%Y-%m-%dT%H:%M:%S)</not_before>
        <not_after>$(date -u -d "$days days" +%Y-%m-%dT%H:%M:%S)</not_after>
      </validity>
      <allow_rule>
        <domains><id_range><min>0</min><max>230</max></id_range></domains>
        <publish><topics><topic>tarvo_bridge_v1_runs</topic></topics></publish>
        <subscribe><topics><topic>tarvo_bridge_v1_runs</topic></topics></subscribe>
      </allow_rule>
      <allow_rule>
        <domains><id_range><min>0</min><max>230</max></id_range></domains>
        <publish>
          <topics><topic>tarvo_bridge_v1_bundles</topic></topics>
          <partitions><partition>run-*</partition></partitions>
        </publish>
        <subscribe>
          <topics><topic>tarvo_bridge_v1_bundles</topic></topics>
          <partitions><partition>run-*</partition></partitions>
        </subscribe>
      </allow_rule>
      <default>DENY</default>
    </grant>
  </permissions>
</dds>
TEXT
    sign "$authority/governance.xml" "$own/governance.p7s"
    sign "$authority/$machine.xml" "$own/permissions.p7s"
    cp "$authority/cert.pem" "$own/identity_ca.cert.pem"
    cp "$authority/cert.pem" "$own/permissions_ca.cert.pem"
done
