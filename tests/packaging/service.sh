# service.sh SCRIPT FOLDER: what the init script SCRIPT would have procd run under the settings in FOLDER, a parameter a
# line: its name and its values, each in brackets.
set -eu

config() { section=$2; }
option() { eval "uci_${section}_$1=\$2"; }
config_load() { . "$configs/$1"; }
config_get() { eval "$1=\${uci_${2}_$3:-\${4-}}"; }
config_get_bool() {
    config_get "$@"
    eval "case \$$1 in 1 | on | true | yes | enabled) $1=1 ;; 0 | off | false | no | disabled) $1=0 ;; *) $1=\$4 ;; esac"
}

values() { for value; do printf '[%s]' "$value"; done; }
procd_open_instance() { command=; }
procd_set_param() {
    case $1 in
        command) shift && command=$(values "$@") ;;
        *) printf '%s ' "$1" && shift && values "$@" && echo ;;
    esac
}
procd_append_param() { [ "$1" = command ] && shift && command=$command$(values "$@"); }
procd_close_instance() { echo "command $command"; }
procd_add_reload_trigger() { echo "reload $(values "$@")"; }

script=$1 configs=$2
. "$script"
[ "$USE_PROCD" = 1 ]
start_service
service_triggers
