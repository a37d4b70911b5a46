"""What must hold whatever anybody does. Sizes in KiB above the idle value, times in seconds."""

# A device has 64 MB, of which the system leaves a fifth to its programs: the agent may not be the one that takes it.
PEAK_FEW = 4096  # with 64 hosts
# A record of a host is some 400 bytes in the platform's list, as much in a bus message, more in a report: all at once.
PEAK_MANY = 8192  # with 1,000 active hosts
FEW_HOSTS = 64
# What a siege leaves behind would be there for years: pages that are cut up, the lists that are bounded. No more.
REST = 512
REST_AFTER = 10  # quiet seconds
# A descriptor that stays behind those who subscribe: of the connection on which their objects are heard.
HEARD = {"gateway-mute": 1, "gateway-slow": 1, "cloud-mute": 1, "objects-noisy": 1, "objects-come-and-go": 1, "together": 1}

# What a person who waits for a page notices; the gateway's own patience is five times as much.
STALL = 1.0
# The platform library's own, for a call that is not answered.
PLATFORM_TIMEOUT = 3.0
# A message may find out of two functions that they do not answer, and then no third; what runs besides has its second, too.
STALL_SILENT = 2 * PLATFORM_TIMEOUT + STALL
# Of the end after SIGTERM, too: what is under way takes its time, then everything ends.

# How soon the agent is registered and enrolled again, once it is called: a name is looked up, keys are made, at most one
# delay of the retry policy is waited for.
BACK = 20.0

# Sanitizers keep freed memory, and make everything slower.
SANITIZED_SLOWER = 5
