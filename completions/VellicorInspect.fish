# fish completion for VellicorInspect

complete -c VellicorInspect -f -a '(__fish_complete_directories)'
complete -c VellicorInspect -l help -d 'Print the usage text' -n 'test (count (commandline -opc)) -eq 1'
complete -c VellicorInspect -l tensors -d 'List the tensors' \
    -n 'not __fish_contains_opt help tensors layers svg tensor expert output force'
complete -c VellicorInspect -l match -x -d 'Only tensors with names like this' \
    -n 'not __fish_contains_opt help layers svg tensor expert output force'
complete -c VellicorInspect -l layers -d 'List the layers' \
    -n 'not __fish_contains_opt help tensors match layers svg tensor expert output force'
complete -c VellicorInspect -l json -d 'Print JSON' \
    -n 'not __fish_contains_opt help json svg tensor expert output force'
complete -c VellicorInspect -l svg -r -F -d 'Write a picture of where the bytes are' \
    -n 'not __fish_contains_opt help tensors match layers json tensor expert output'
complete -c VellicorInspect -l tensor -x -d 'Write the bytes of a tensor' \
    -n 'not __fish_contains_opt help tensors match layers json svg'
complete -c VellicorInspect -l expert -x -d 'Only this expert of a routed tensor' \
    -n 'not __fish_contains_opt help tensors match layers json svg'
complete -c VellicorInspect -l output -r -F -d 'The file to write the tensor to' \
    -n 'not __fish_contains_opt help tensors match layers json svg'
complete -c VellicorInspect -l force -d 'Replace the file if it exists' \
    -n 'not __fish_contains_opt help tensors match layers json force'
