# SPDX-License-Identifier: Apache-2.0
# Users and groups of the samples. Take numbers of your own from the vendor's range, 2900 to 2999.

[AID_VENDOR_VEXON]
value: 2940

[AID_VENDOR_THERMOSTAT]
value: 2941
