// placeholder: implementation pending
