# SPDX-License-Identifier: Apache-2.0
# Directory caches in a machine.

# One checks in, the other is described and started on demand.
CACHE = "com.example.cache"
NAMED = "com.example.named"

RULES = '{ User = "www-data"; Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT); }'
DESCRIPTION = f'{{ KELVANE_ID = "{NAMED}"; KELVANE_SERVICES = (PURGE); }}'
# Of /volumes/data: all other volumes are never low.
LEVELS = """<plist version="1.0"><dict>
<key>LowBytes</key><integer>0</integer><key>VeryLowBytes</key><integer>0</integer>
<key>Volumes</key><dict><key>/volumes/data</key><dict><key>LowPercent</key><integer>100</integer>
<key>LowBytes</key><integer>20971520</integer></dict></dict></dict></plist>"""


def configuration(identifier, directory, user, others_may_write="NO", **keys):
    """Of a cache all of whose files may go at once, with more keys and what they say."""
    more = " ".join(f"{key} = {value};" for key, value in keys.items())
    return (f'{{ Identifier = "{identifier}"; User = "{user}"; {more} Directories = ({{ Path = "{directory}"; '
            f'Ages = (0, 0, 0, 0); MinimumAge = (0, 0, 0, 0); OthersMayWrite = {others_may_write}; }}); }}')
