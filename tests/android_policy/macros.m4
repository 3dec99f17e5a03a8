dnl SPDX-License-Identifier: Apache-2.0
dnl What the samples use of the platform's te_macros, with as much of it as they need.
define(`userdebug_or_eng', `ifelse(variant, `user', , `$1')')dnl
define(`init_daemon_domain', `
allow init $1_exec:file { getattr open read execute map };
allow init $1:process transition;
allow $1 $1_exec:file { entrypoint getattr open read execute map };
type_transition init $1_exec:process $1;
')dnl
define(`unix_socket_connect', `
allow $1 $2_socket:sock_file write;
allow $1 $3:unix_stream_socket connectto;
')dnl
define(`get_prop', `allow $1 $2:file { getattr open read map };')dnl
define(`set_prop', `
unix_socket_connect($1, property, init)
allow $1 $2:property_service set;
get_prop($1, $2)
')dnl
define(`vendor_internal_prop', `
type $1, property_type, vendor_internal_property_type;
neverallow { coredomain -init -vendor_init } $1:property_service set;
neverallow { coredomain -init -vendor_init } $1:file { getattr open read map };
')dnl
