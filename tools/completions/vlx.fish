# What can follow, "vlx" itself knows.
function __vlx_complete
    set -l last (commandline -ct)
    vlx --complete (commandline -opc)[2..] "$last"; or __fish_complete_path "$last"
end
complete -c vlx -f -a '(__vlx_complete)'
