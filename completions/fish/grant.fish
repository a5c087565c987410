# fish completion for grant(1)

complete -c grant -f
complete -c grant -s h -l help -d 'Print the usage'

complete -c grant -n __fish_use_subcommand -a keys -d 'Make a key pair'
complete -c grant -n __fish_use_subcommand -a sign -d 'Sign features'
complete -c grant -n __fish_use_subcommand -a show -d 'Print what is in a grant'

set -l keys '__fish_seen_subcommand_from keys'
complete -c grant -n $keys -l private -r -F -d 'Where the private key goes'
complete -c grant -n $keys -l public -r -F -d 'Where the public key goes'
complete -c grant -n $keys -l algorithm -x -a 'ES256 ES384 RS256' -d 'What the key will sign with'

set -l sign '__fish_seen_subcommand_from sign'
complete -c grant -n $sign -l key -r -F -d 'The private key'
complete -c grant -n $sign -l signer -x -a '(__fish_complete_command)' -d 'A command that signs'
complete -c grant -n $sign -l public -r -F -d 'The public key'
complete -c grant -n $sign -l serial -x -d 'The serial number'
complete -c grant -n $sign -l serials -r -F -d 'Serial numbers, one a line'
complete -c grant -n $sign -l output-folder -x -a '(__fish_complete_directories)' -d 'Where many grants go'
complete -c grant -n $sign -l replace -d 'Replace grants that are there'
complete -c grant -n $sign -l feature -x -d 'A feature'
complete -c grant -n $sign -l features -r -F -d 'All features, a JSON list'

set -l show '__fish_seen_subcommand_from show'
complete -c grant -n $show -F
complete -c grant -n $show -l public -r -F -d 'The public key'
complete -c grant -n $show -l json -d 'Print one object'
