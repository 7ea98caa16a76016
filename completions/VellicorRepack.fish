# fish completion for VellicorRepack

complete -c VellicorRepack -f
complete -c VellicorRepack -l help -d 'Print the usage text' \
    -n 'not __fish_contains_opt output overwrite resume discard-partial verify-install input-morlen'
complete -c VellicorRepack -l output -x -a '(__fish_complete_directories)' \
    -d 'Install into this artifact directory' \
    -n 'not __fish_contains_opt help verify-install input-morlen'
complete -c VellicorRepack -l overwrite -d 'Replace the artifact at the output' \
    -n 'not __fish_contains_opt help overwrite discard-partial verify-install input-morlen'
complete -c VellicorRepack -l resume -d 'Continue a saved download' \
    -n 'not __fish_contains_opt help resume discard-partial verify-install input-morlen'
complete -c VellicorRepack -l discard-partial -d 'Remove a saved download' \
    -n 'not __fish_contains_opt help overwrite resume discard-partial verify-install input-morlen'
complete -c VellicorRepack -l verify-install -d 'Read and check an installed artifact' \
    -n 'not __fish_contains_opt help output overwrite resume discard-partial verify-install'
complete -c VellicorRepack -l input-morlen -x -a '(__fish_complete_directories)' \
    -d 'The artifact directory to verify' \
    -n 'not __fish_contains_opt help output overwrite resume discard-partial'
