# fish completion for VellicorProgress

complete -c VellicorProgress -f
complete -c VellicorProgress -n 'test (count (commandline -opc)) -eq 1' -a -- -d 'Run the command after it'
complete -c VellicorProgress -l help -d 'Print the usage text' -n 'test (count (commandline -opc)) -eq 1'
complete -c VellicorProgress -l version -d 'Print the version' -n 'test (count (commandline -opc)) -eq 1'
# As that command completes them.
complete -c VellicorProgress -n 'contains -- -- (commandline -opc)' -x \
    -a '(complete -C (string join -- " " (string escape -- (commandline -opc)[3..]) (commandline -ct)))'
